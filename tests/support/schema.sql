CREATE TABLE photo_share (
  shareid integer PRIMARY KEY, sharename text, title text, description text, public boolean, hits integer DEFAULT 0,
  cover text, comment boolean, is_subdir boolean, conversion boolean, password text);
CREATE INDEX photo_share_sharename_index ON photo_share (sharename);

CREATE TABLE photo_user (
  userid integer PRIMARY KEY, username text, description text, password text, disabled boolean, lock_pass boolean,
  admin boolean, email text);
CREATE INDEX photo_user_username_index ON photo_user (username);

CREATE TABLE photo_group (groupid integer PRIMARY KEY, groupname text, description text);
CREATE INDEX photo_group_groupname_index ON photo_group (groupname);

CREATE TABLE photo_user_group (userid integer, groupid integer);
CREATE INDEX photo_user_group_groupid_index ON photo_user_group (groupid);

CREATE TABLE photo_access_right (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_access_right_userid_index ON photo_access_right (userid);
CREATE TABLE photo_upload_right (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_upload_right_userid_index ON photo_upload_right (userid);
CREATE TABLE photo_manage_right (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_manage_right_userid_index ON photo_manage_right (userid);

CREATE TABLE photo_access_right_for_hox_account (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_access_right_for_hox_account_userid_index ON photo_access_right_for_hox_account (userid);
CREATE TABLE photo_upload_right_for_hox_account (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_upload_right_for_hox_account_userid_index ON photo_upload_right_for_hox_account (userid);
CREATE TABLE photo_manage_right_for_hox_account (userid integer, shareid integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_manage_right_for_hox_account_userid_index ON photo_manage_right_for_hox_account (userid);

CREATE TABLE photo_group_permission (
  groupid integer, shareid integer, permission integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_group_permission_groupid_index ON photo_group_permission (groupid);
CREATE TABLE photo_group_permission_for_hox_account (
  groupid integer, shareid integer, permission integer, create_time timestamp DEFAULT now());
CREATE INDEX photo_group_permission_for_hox_account_groupid_index
  ON photo_group_permission_for_hox_account (groupid);

CREATE TABLE photo_label (id serial PRIMARY KEY, name text, category integer, info text);
CREATE INDEX photo_label_name_index ON photo_label (name, category);

CREATE TABLE photo_image (
  id serial PRIMARY KEY, path text, name text, title text, description text, album text, size bigint,
  resolutionx integer, resolutiony integer, camera_make text, camera_model text, exposure text, aperture text,
  iso integer, timetaken timestamp, updated boolean, version integer, create_time timestamp DEFAULT now(), gps text);
CREATE UNIQUE INDEX photo_image_path_index ON photo_image (path);

CREATE TABLE photo_comment (
  id serial PRIMARY KEY, photo_id integer, name text, email text, comment text, date timestamp DEFAULT now());
CREATE INDEX photo_comment_photo_id_index ON photo_comment (photo_id);

CREATE TABLE photo_image_label (
  id serial PRIMARY KEY, image_id integer, label_id integer, info text, info_new text, status boolean);
CREATE INDEX photo_image_label_image_id_index ON photo_image_label (image_id);
CREATE INDEX photo_image_label_label_id_index ON photo_image_label (label_id);

CREATE TABLE video (id serial PRIMARY KEY, path text, name text, size bigint, create_time timestamp DEFAULT now());
CREATE INDEX video_path_index ON video (path);
CREATE TABLE video_comment (
  id serial PRIMARY KEY, path text, name text, email text, comment text, date timestamp DEFAULT now());
CREATE INDEX video_comment_path_index ON video_comment (path);
CREATE TABLE video_desc (id serial PRIMARY KEY, path text, title text, description text);
CREATE INDEX video_desc_path_index ON video_desc (path);
CREATE TABLE photo_video_label (id serial PRIMARY KEY, video_path text, label_id integer, status boolean);
CREATE INDEX photo_video_label_video_path_index ON photo_video_label (video_path);

CREATE TABLE category (
  id serial PRIMARY KEY, name text, hidden boolean, order_number integer, create_date timestamp DEFAULT now(),
  modify_date timestamp DEFAULT now());
CREATE INDEX category_name_index ON category (name);
CREATE TABLE category_items (
  id serial PRIMARY KEY, category_id integer, type text, order_number integer, album_id integer, tag_id integer,
  smart_id text);
CREATE INDEX category_items_category_id_index ON category_items (category_id);

CREATE TABLE photo_config (module_name text, config_key text, config_value text);
CREATE INDEX photo_config_key_index ON photo_config (module_name, config_key);

CREATE TABLE photo_log (logid integer PRIMARY KEY, create_time timestamp, log text, success boolean, "user" text);

CREATE TABLE watermark (
  shareid integer PRIMARY KEY, path text, opacity integer, gravity integer, size integer, hash text, mtime bigint,
  changed boolean);

CREATE TABLE photo_personal_collection (
  id serial PRIMARY KEY, userid integer, name text, is_shared boolean, start_time timestamp, end_time timestamp,
  sharelink text, create_date timestamp DEFAULT now(), hidden boolean);
CREATE TABLE photo_personal_collection_for_hox_account (
  id serial PRIMARY KEY, userid integer, name text, is_shared boolean, start_time timestamp, end_time timestamp,
  sharelink text, create_date timestamp DEFAULT now(), hidden boolean);
CREATE TABLE photo_personal_collection_for_admin (
  id serial PRIMARY KEY, name text, is_shared boolean, start_time timestamp, end_time timestamp, sharelink text,
  create_date timestamp DEFAULT now(), hidden boolean);
CREATE INDEX photo_personal_collection_name_index ON photo_personal_collection (name);
CREATE INDEX photo_personal_collection_for_hox_account_name_index ON photo_personal_collection_for_hox_account (name);
CREATE INDEX photo_personal_collection_for_admin_name_index ON photo_personal_collection_for_admin (name);

CREATE TABLE photo_personal_collection_photo (collectionid integer, photoid integer);
CREATE TABLE photo_personal_collection_photo_for_admin (collectionid integer, photoid integer);
CREATE TABLE photo_personal_collection_photo_for_hox_account (collectionid integer, photoid integer);
CREATE TABLE photo_personal_collection_video (collectionid integer, videoid integer);
CREATE TABLE photo_personal_collection_video_for_admin (collectionid integer, videoid integer);
CREATE TABLE photo_personal_collection_video_for_hox_account (collectionid integer, videoid integer);
CREATE INDEX ON photo_personal_collection_photo (collectionid);
CREATE INDEX ON photo_personal_collection_photo_for_admin (collectionid);
CREATE INDEX ON photo_personal_collection_photo_for_hox_account (collectionid);
CREATE INDEX ON photo_personal_collection_video (collectionid);
CREATE INDEX ON photo_personal_collection_video_for_admin (collectionid);
CREATE INDEX ON photo_personal_collection_video_for_hox_account (collectionid);
