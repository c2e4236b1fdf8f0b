#include "support/filled_tables.h"

#include "support/appliance.h"

namespace appliance {

void fillTables(const std::string& database, int rows) {
  Database filled(database);
  filled.exec(R"(
    DO $$
    DECLARE
      name text;
      columns text;
      expressions text;
    BEGIN
      FOR name IN SELECT tablename FROM pg_tables WHERE schemaname = 'public' LOOP
        SELECT string_agg(quote_ident(column_name), ', ' ORDER BY ordinal_position),
               string_agg(CASE WHEN data_type IN ('integer', 'bigint') THEN 'n'
                               WHEN data_type = 'boolean' THEN 'n % 2 = 0'
                               WHEN data_type LIKE 'timestamp%' THEN 'timestamp ''2020-01-02'' + n * interval ''1 day'''
                               ELSE quote_literal(column_name || ' ') || ' || n' END, ', ' ORDER BY ordinal_position)
          INTO columns, expressions
          FROM information_schema.columns
          WHERE table_schema = 'public' AND table_name = name AND coalesce(column_default, '') NOT LIKE 'nextval%';
        EXECUTE format('INSERT INTO %I (%s) SELECT %s FROM generate_series(1, )" +
              std::to_string(rows) + R"() n', name, columns, expressions);
      END LOOP;
    END $$)");
}

}  // namespace appliance
