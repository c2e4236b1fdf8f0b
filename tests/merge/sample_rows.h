#pragma once

#include <string>

#include "support/appliance.h"

// A small database in which every table holds rows that refer to each other.
namespace sample {

// "%p" stands for the beginning of every name, "#" for the hundred that all numbers are counted from.
inline const char* const kRows = R"(
INSERT INTO photo_share VALUES
  (#01, '%p trips', 'Trips', 'far', true, 12, 'cover.jpg', true, false, true, 'pass'),
  (#02, '%p it''s', 'It''s', '', false, 0, '', false, false, false, ''),
  (#03, '%p trips/kids', 'Kids', 'small', true, 3, '', true, true, false, '');
INSERT INTO photo_user VALUES
  (#01, '%p anna', 'A', 'p1', false, true, true, 'anna@example.com'),
  (#02, '%p o''ben', 'B', 'p2', true, false, false, ''),
  (#03, '%p carl', '', '', false, false, false, '');
INSERT INTO photo_group VALUES (#01, '%p family', 'all of us'), (#02, '%p o''clock', '');
INSERT INTO photo_user_group VALUES (#01, #01), (#02, #01), (#02, #02), (#03, #02);
INSERT INTO photo_access_right VALUES
  (#01, #01, '2020-01-01 01:00:00'), (#01, #02, '2020-01-02 01:00:00'), (#02, #01, '2020-01-03 01:00:00'),
  (#03, #03, '2020-01-04 01:00:00');
INSERT INTO photo_upload_right VALUES (#01, #02, '2020-02-01 01:00:00'), (#02, #03, '2020-02-02 01:00:00');
INSERT INTO photo_manage_right VALUES (#01, #03, '2020-03-01 01:00:00'), (#03, #01, '2020-03-02 01:00:00');
INSERT INTO photo_group_permission VALUES
  (#01, #01, 1, '2020-04-01 01:00:00'), (#01, #02, 2, '2020-04-02 01:00:00'), (#02, #01, 4, '2020-04-03 01:00:00');
INSERT INTO photo_access_right_for_hox_account VALUES
  (1026, #01, '2020-05-01 01:00:00'), (1027, #02, '2020-05-02 01:00:00');
INSERT INTO photo_upload_right_for_hox_account VALUES (1026, #02, '2020-06-01 01:00:00');
INSERT INTO photo_manage_right_for_hox_account VALUES (1027, #03, '2020-07-01 01:00:00');
INSERT INTO photo_group_permission_for_hox_account VALUES
  (65600, #01, 3, '2020-08-01 01:00:00'), (65601, #02, 5, '2020-08-02 01:00:00');
INSERT INTO photo_label VALUES
  (#01, '%p paris', 0, 'person'), (#02, '%p paris', 1, 'place'), (#03, '%p o''hara', 0, ''), (#04, '%p sun', 2, '');
INSERT INTO photo_image VALUES
  (#01, '/var/services/photo/%p trips/1.jpg', '1', 't', 'd', 'a', 1000, 40, 30, 'M', 'C', '1/60', 'f/2', 100,
   '2013-05-07 08:09:10', true, 1, '2014-01-01 00:00:00', '52,13'),
  (#02, '/var/services/photo/%p trips/2.jpg', '2', '', '', '', 2000, 80, 60, '', '', '', '', 200,
   '2013-05-08 08:09:10', true, 2, '2014-01-02 00:00:00', ''),
  (#03, '/var/services/photo/%p it''s/3.jpg', '3', 'it''s', '', '', 3000, 20, 10, '', '', '', '', 400,
   '2013-05-09 08:09:10', true, 3, '2014-01-03 00:00:00', '');
INSERT INTO photo_comment VALUES
  (#01, #01, 'x', 'x@example.com', 'nice', '2015-01-01 00:00:00'), (#02, #01, 'y', '', 'it''s', '2015-01-02 00:00:00'),
  (#03, #03, 'x', '', 'third', '2015-01-01 00:00:00');
INSERT INTO photo_image_label VALUES
  (#01, #01, #01, 'i', 'n', true), (#02, #01, #02, '', '', false), (#03, #02, #04, '', '', true),
  (#04, #03, #03, 'it''s', '', true);
INSERT INTO video VALUES
  (#01, '/var/services/photo/%p trips/1.avi', '1', 1, '2014-01-01 00:00:00'),
  (#02, '/var/services/photo/%p it''s/2.avi', '2', 2, '2014-01-01 00:00:00');
INSERT INTO video_comment VALUES
  (#01, '/var/services/photo/%p trips/1.avi', 'x', '', 'good', '2015-02-01 00:00:00'),
  (#02, '/var/services/photo/%p it''s/2.avi', 'y', '', 'it''s', '2015-02-02 00:00:00');
INSERT INTO video_desc VALUES
  (#01, '/var/services/photo/%p trips/1.avi', 'one', 'first'), (#02, '/var/services/photo/%p it''s/2.avi', 'two', '');
INSERT INTO photo_video_label VALUES
  (#01, '/var/services/photo/%p trips/1.avi', #01, true), (#02, '/var/services/photo/%p trips/1.avi', #02, true),
  (#03, '/var/services/photo/%p it''s/2.avi', #03, true);
INSERT INTO category VALUES
  (#01, '%p best', false, 1, '2016-01-01 00:00:00', '2016-02-01 00:00:00'),
  (#02, '%p o''dd', true, 2, '2016-01-02 00:00:00', '2016-02-02 00:00:00');
INSERT INTO category_items VALUES
  (#01, #01, 'album', 1, #01, NULL, NULL), (#02, #01, 'tag', 2, NULL, #04, NULL), (#03, #02, 'smart', 1, NULL, NULL, 's1'),
  (#04, #02, 'album', 2, #03, NULL, NULL);
INSERT INTO photo_config VALUES ('%p module', 'key', 'value'), ('%p module', 'it''s', '"quoted" \ 100%');
INSERT INTO photo_log VALUES
  (#01, '2017-01-01 00:00:00', 'in', true, '%p anna'), (#02, '2017-01-02 00:00:00', 'it''s', false, '%p o''ben'),
  (#03, '2017-01-03 00:00:00', 'out', true, '%p anna');
INSERT INTO watermark VALUES
  (#01, '%p mark.png', 50, 1, 10, 'hash1', 1400000001, true), (#02, '%p other.png', 60, 2, 20, 'hash2', 1400000002, false);
INSERT INTO photo_personal_collection VALUES
  (#01, #01, '%p mine', true, '2018-01-01 00:00:00', NULL, 'link1', '2018-02-01 00:00:00', false),
  (#02, #02, '%p yours', false, NULL, '2018-03-01 00:00:00', '', '2018-02-02 00:00:00', true);
INSERT INTO photo_personal_collection_for_admin VALUES
  (#01, '%p theirs', true, NULL, NULL, 'link2', '2018-02-03 00:00:00', false);
INSERT INTO photo_personal_collection_for_hox_account VALUES
  (#01, 1026, '%p hosted', true, NULL, NULL, 'link3', '2018-02-04 00:00:00', false),
  (#02, 1027, '%p mine', true, NULL, NULL, 'link4', '2018-02-05 00:00:00', false);
INSERT INTO photo_personal_collection_photo VALUES (#01, #01), (#01, #02), (#02, #01);
INSERT INTO photo_personal_collection_photo_for_admin VALUES (#01, #02);
INSERT INTO photo_personal_collection_photo_for_hox_account VALUES (#01, #01), (#02, #02);
INSERT INTO photo_personal_collection_video VALUES (#01, #01), (#02, #01);
INSERT INTO photo_personal_collection_video_for_admin VALUES (#01, #01);
INSERT INTO photo_personal_collection_video_for_hox_account VALUES (#01, #01), (#02, #01);
SELECT setval(s.oid::regclass, #50) FROM pg_class s WHERE s.relkind = 'S';
)";

inline void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

// Fills empty tables; the numbers are `hundred` * 100 + 1 and up, every name begins with `prefix`.
inline void fill(appliance::Database& database, const std::string& prefix, int hundred) {
  std::string rows = kRows;
  replaceAll(rows, "%p", prefix);
  replaceAll(rows, "#", std::to_string(hundred));
  database.exec(rows);
}

// The folders and media files that the rows of this prefix name.
inline void makeFiles(const std::string& prefix) {
  const std::string root = "/var/services/photo/" + prefix + " ";
  appliance::makeDirectories(root + "trips/kids");
  for (const char* file : {"trips/1.jpg", "trips/2.jpg", "it's/3.jpg", "trips/1.avi", "it's/2.avi"}) {
    appliance::writeFile(root + file, "x");
  }
}

}  // namespace sample
