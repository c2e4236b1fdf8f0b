// Statements that must not compile, one for each REJECTED, and with 0 none of them.

#include "platform/query.h"

bool run(DBConnect_tag* connection, const std::string& foreign) {
#if REJECTED == 1
  return execute(connection, foreign.c_str());
#elif REJECTED == 2
  return execute(connection, "Select " + foreign);
#elif REJECTED == 3
  const char text[] = {'S', foreign[0], '\0'};
  return execute(connection, text);
#elif REJECTED == 4
  return execute(connection, Statement{{foreign.c_str(), 1}, {}});
#elif REJECTED == 5
  return execute(connection, "Select '%s'", foreign);
#elif REJECTED == 6
  return execute(connection, "Select '%s'", foreign.c_str());
#elif REJECTED == 7
  return execute(connection, "Select %s", Text{foreign});
#elif REJECTED == 8
  return execute(connection, "Select 'x %s'", Text{foreign});
#elif REJECTED == 9
  return execute(connection, "Select 'x %s'", Raw(foreign));
#elif REJECTED == 10
  return execute(connection, "Select '%s'", QuotedOrNull{Raw(foreign)});
#elif REJECTED == 11
  return execute(connection, "Select 1 in ('%s')", List::ofNumbers(foreign));
#elif REJECTED == 12
  return execute(connection, "Select '%s'");
#elif REJECTED == 13
  return execute(connection, "Select '%s', '%s'", Text{foreign});
#elif REJECTED == 14
  return execute(connection, "Select '%s'", Text{foreign}, Text{foreign});
#elif REJECTED == 15
  return execute(connection, "Select %d", 1);
#elif REJECTED == 16
  return execute(connection, "Select 100%", 1);
#elif REJECTED == 17
  return execute(connection, "Select %s", 1.5);
#elif REJECTED == 18
  return execute(connection, Statement{{"Select %s", 1}, {Argument(Text{foreign})}});
#elif REJECTED == 19
  return execute(connection, "Select E'%s'", Text{foreign});
#elif REJECTED == 20
  return execute(connection, "Select 1 -- '%s'", Text{foreign});
#elif REJECTED == 21
  return execute(connection, "Select 1 /* '%s' */", Text{foreign});
#elif REJECTED == 22
  return execute(connection, "Select 1 as \"'%s'\"", Text{foreign});
#elif REJECTED == 23
  return execute(connection, "Select $$ '%s' $$", Text{foreign});
#else
  return execute(connection, "Select '%s', %s, %s", Text{foreign}, Raw(foreign), 1);
#endif
}
