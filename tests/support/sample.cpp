#include "support/sample.h"

#include "support/appliance.h"

namespace appliance {
namespace {

// The statements below hold the options as marks, "@shares@" for one.
std::string settle(std::string sql, const SampleOptions& options) {
  const std::vector<std::pair<std::string, std::string>> values = {{"@first@", std::to_string(options.firstNumber)},
                                                                   {"@shares@", std::to_string(options.shares)},
                                                                   {"@share@", std::to_string(options.firstShare)},
                                                                   {"@users@", std::to_string(options.users)},
                                                                   {"@groups@", std::to_string(options.groups)},
                                                                   {"@photos@", std::to_string(options.photos)},
                                                                   {"@videos@", std::to_string(options.videos)},
                                                                   {"@logs@", std::to_string(options.logs)},
                                                                   {"@flavour@", options.flavour}};
  for (const auto& [mark, value] : values) {
    for (std::size_t at = sql.find(mark); at != std::string::npos; at = sql.find(mark, at + value.size())) {
      sql.replace(at, mark.size(), value);
    }
  }
  return sql;
}

constexpr const char* kSequences = R"sql(
SELECT setval(c.oid::regclass, @first@ + 1, false)
FROM pg_class c WHERE c.relkind = 'S' AND c.relnamespace = 'public'::regnamespace;
)sql";

constexpr const char* kAccountsAndShares = R"sql(
INSERT INTO photo_share
SELECT @first@ + n, 'album' || (@share@ + n - 1), 'Album ' || n || ' (@flavour@)', 'Photos of year ' || 2000 + n,
       n % 2 = 0, n * 3, '', true, false, true, ''
FROM generate_series(1, @shares@) n;

INSERT INTO photo_user
SELECT @first@ + n, 'user' || n, 'Member ' || n || ' (@flavour@)', md5('user' || n), n % 10 = 0, false, n = 1,
       'user' || n || '@example.com'
FROM generate_series(1, @users@) n;

INSERT INTO photo_group
SELECT @first@ + n, 'group' || n, 'Circle ' || n || ' (@flavour@)' FROM generate_series(1, @groups@) n;

INSERT INTO photo_user_group
SELECT @first@ + n, @first@ + 1 + n % @groups@ FROM generate_series(1, @users@) n;

INSERT INTO photo_access_right
SELECT @first@ + u, @first@ + s, timestamp '2024-01-01' + u * interval '1 hour'
FROM generate_series(1, @users@) u, generate_series(1, @shares@) s WHERE (u + s) % 3 = 0;
INSERT INTO photo_upload_right
SELECT @first@ + u, @first@ + s, timestamp '2024-01-02' + u * interval '1 hour'
FROM generate_series(1, @users@) u, generate_series(1, @shares@) s WHERE (u + s) % 7 = 0;
INSERT INTO photo_manage_right
SELECT @first@ + u, @first@ + s, timestamp '2024-01-03' + u * interval '1 hour'
FROM generate_series(1, @users@) u, generate_series(1, @shares@) s WHERE (u + s) % 11 = 0;
INSERT INTO photo_group_permission
SELECT @first@ + g, @first@ + s, g % 3 + 1, timestamp '2024-01-04'
FROM generate_series(1, @groups@) g, generate_series(1, @shares@) s WHERE (g + s) % 2 = 0;

INSERT INTO photo_access_right_for_hox_account
SELECT u, @first@ + s, timestamp '2024-02-01' FROM unnest(ARRAY[1026, 1027]) u, generate_series(1, @shares@) s;
INSERT INTO photo_upload_right_for_hox_account
SELECT 1026, @first@ + s, timestamp '2024-02-02' FROM generate_series(1, @shares@) s WHERE s % 2 = 0;
INSERT INTO photo_manage_right_for_hox_account
SELECT 1026, @first@ + s, timestamp '2024-02-03' FROM generate_series(1, @shares@) s WHERE s % 4 = 0;
INSERT INTO photo_group_permission_for_hox_account
SELECT g, @first@ + s, 2, timestamp '2024-02-04'
FROM unnest(ARRAY[65600, 65601]) g, generate_series(1, @shares@) s WHERE s % 3 = 0;

INSERT INTO watermark
SELECT @first@ + s, '/var/services/photo/@eaDir/watermark' || s || '.png', 60, s % 9, 30, md5(s::text), 1700000000 + s,
       false
FROM generate_series(1, @shares@) s WHERE s % 3 = 0;
)sql";

constexpr const char* kMedia = R"sql(
INSERT INTO photo_label (name, category, info)
SELECT (ARRAY['Person ', 'Place ', 'Tag '])[c + 1] || n, c, CASE WHEN c = 1 THEN '{"placeid":' || n || '}' ELSE '' END
FROM generate_series(0, 2) c, generate_series(1, 20) n;

INSERT INTO photo_image (path, name, title, description, album, size, resolutionx, resolutiony, camera_make, camera_model,
                         exposure, aperture, iso, timetaken, updated, version, create_time, gps)
SELECT '/var/services/photo/' || s.sharename || '/img' || n || '.jpg', 'img' || n || '.jpg',
       'Photo ' || n || ' (@flavour@)', 'It''s photo ' || n, s.sharename, 1000000 + n, 4000, 3000, 'Maker', 'Model ' || n % 5,
       '1/' || 50 + n % 200, 'f/2.8', 100 * (1 + n % 8), timestamp '2020-01-01' + n * interval '7 hours', true, 1,
       timestamp '2024-03-01' + n * interval '1 minute', CASE WHEN n % 4 = 0 THEN '48.1,11.' || n ELSE '' END
FROM photo_share s, generate_series(1, @photos@) n ORDER BY s.shareid, n;

INSERT INTO photo_comment (photo_id, name, email, comment, date)
SELECT i.id, 'user' || 1 + i.id % @users@, 'user@example.com', 'What a "fine" photo, isn''t it? (@flavour@)',
       timestamp '2024-04-01' + (i.id % 1000) * interval '1 minute'
FROM photo_image i WHERE i.id % 3 = 0 ORDER BY i.id;

INSERT INTO photo_image_label (image_id, label_id, info, info_new, status)
SELECT i.id, l.id, '{"x":0.5}', '', true
FROM photo_image i JOIN photo_label l ON (i.id + l.id) % 30 = 0 ORDER BY i.id, l.id;

INSERT INTO video (path, name, size, create_time)
SELECT '/var/services/photo/' || s.sharename || '/clip' || n || '.mp4', 'clip' || n, 90000000 + n, timestamp '2024-03-02'
FROM photo_share s, generate_series(1, @videos@) n ORDER BY s.shareid, n;
INSERT INTO video_desc (path, title, description)
SELECT path, name || ' (@flavour@)', 'A film' FROM video ORDER BY id;
INSERT INTO video_comment (path, name, email, comment, date)
SELECT path, 'user2', 'user2@example.com', 'Well done (@flavour@)', timestamp '2024-04-02' FROM video WHERE id % 2 = 0
ORDER BY id;
INSERT INTO photo_video_label (video_path, label_id, status)
SELECT v.path, l.id, true FROM video v JOIN photo_label l ON (v.id + l.id) % 20 = 0 ORDER BY v.id, l.id;
)sql";

constexpr const char* kRest = R"sql(
INSERT INTO category (name, hidden, order_number, create_date, modify_date)
SELECT 'Category ' || n, n = 4, n, timestamp '2024-05-01', timestamp '2024-05-02' FROM generate_series(1, 4) n;
INSERT INTO category_items (category_id, type, order_number, album_id)
SELECT c.id, 'album', s.shareid - @first@, s.shareid FROM category c, photo_share s
WHERE c.name = 'Category 1' AND s.shareid % 2 = 0;
INSERT INTO category_items (category_id, type, order_number, tag_id)
SELECT c.id, 'tag', l.id - @first@, l.id FROM category c, photo_label l WHERE c.name = 'Category 2' AND l.id % 10 = 0;
INSERT INTO category_items (category_id, type, order_number, smart_id)
SELECT c.id, 'smart', n, 'smart' || n FROM category c, generate_series(1, 3) n WHERE c.name = 'Category 3';

INSERT INTO photo_personal_collection (userid, name, is_shared, start_time, end_time, sharelink, create_date, hidden)
SELECT @first@ + n, 'Best of user' || n, n % 2 = 0, CASE WHEN n % 3 = 0 THEN timestamp '2024-06-01' END, NULL,
       'link' || n, timestamp '2024-05-20', false
FROM generate_series(1, @users@) n;
INSERT INTO photo_personal_collection_for_admin (name, is_shared, start_time, end_time, sharelink, create_date, hidden)
SELECT 'Choice ' || n, true, NULL, NULL, 'admin' || n, timestamp '2024-05-21', false FROM generate_series(1, 5) n;
INSERT INTO photo_personal_collection_for_hox_account
  (userid, name, is_shared, start_time, end_time, sharelink, create_date, hidden)
SELECT 1026, 'Editor ' || n, false, NULL, NULL, 'host' || n, timestamp '2024-05-22', true FROM generate_series(1, 5) n;

INSERT INTO photo_personal_collection_photo
SELECT c.id, i.id FROM photo_personal_collection c JOIN photo_image i ON (c.id + i.id) % 97 = 0;
INSERT INTO photo_personal_collection_photo_for_admin
SELECT c.id, i.id FROM photo_personal_collection_for_admin c JOIN photo_image i ON (c.id + i.id) % 97 = 0;
INSERT INTO photo_personal_collection_photo_for_hox_account
SELECT c.id, i.id FROM photo_personal_collection_for_hox_account c JOIN photo_image i ON (c.id + i.id) % 97 = 0;
INSERT INTO photo_personal_collection_video
SELECT c.id, v.id FROM photo_personal_collection c JOIN video v ON (c.id + v.id) % 17 = 0;
INSERT INTO photo_personal_collection_video_for_admin
SELECT c.id, v.id FROM photo_personal_collection_for_admin c JOIN video v ON (c.id + v.id) % 17 = 0;
INSERT INTO photo_personal_collection_video_for_hox_account
SELECT c.id, v.id FROM photo_personal_collection_for_hox_account c JOIN video v ON (c.id + v.id) % 17 = 0;

INSERT INTO photo_log
SELECT @first@ + n, timestamp '2024-07-01' + n * interval '1 minute', 'user' || n % @users@ || ' signed in (@flavour@)',
       n % 9 <> 0, 'user' || n % @users@
FROM generate_series(1, @logs@) n;

INSERT INTO photo_config
SELECT 'photo', 'key' || n, 'value ' || n || ' (@flavour@)' FROM generate_series(1, 30) n;

ANALYZE;
)sql";

std::string join(const Rows& rows) {
  std::string list;
  for (const auto& row : rows) {
    list += (list.empty() ? "" : ",") + row[0];
  }
  return list;
}

// One album per kind of rule, and one rule that names nothing by number.
void writeSmartAlbums(Database& database) {
  const std::string people = join(database.rows("SELECT id FROM photo_label WHERE category = 0 ORDER BY id LIMIT 2"));
  const std::string places = join(database.rows("SELECT id FROM photo_label WHERE category = 1 ORDER BY id LIMIT 2"));
  const std::string tags = join(database.rows("SELECT id FROM photo_label WHERE category = 2 ORDER BY id LIMIT 2"));
  const std::string albums = join(database.rows("SELECT shareid FROM photo_share ORDER BY shareid LIMIT 2"));
  const auto album = [](const std::string& key, const std::string& field, const std::string& value) {
    return "    \"" + key + R"(" : { "name" : ")" + key + R"(", "rule_sets" : [ [ { "field" : ")" + field +
           R"(", "value" : ")" + value + "\" } ] ] }";
  };
  writeFile("/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG",
            "{\n  \"smart_albums\" : {\n" + album("smart1", "people", people) + ",\n" + album("smart2", "geo", places) +
                ",\n" + album("smart3", "desc", tags) + ",\n" + album("smart4", "albums", albums) + ",\n" +
                album("smart5", "date", "2020-01-01") + "\n  }\n}\n");
}

}  // namespace

void fillSample(const std::string& database, const SampleOptions& options) {
  Database connection(database);
  connection.exec("BEGIN");
  for (const char* part : {kSequences, kAccountsAndShares, kMedia, kRest}) {
    connection.exec(settle(part, options));
  }
  connection.exec("COMMIT");
  if (!options.files) {
    return;
  }
  for (const char* table : {"photo_image", "video"}) {
    for (const auto& row : connection.rows(std::string("SELECT path FROM ") + table)) {
      writeFile(row[0], "");
    }
  }
  writeSmartAlbums(connection);
}

}  // namespace appliance
