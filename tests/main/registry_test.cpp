#include "main/registry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

TEST(Registry, ListsEveryTableInTheOrderOfTheMerge) {
  const std::vector<std::string> expected = {"photo_label",
                                             "photo_access_right",
                                             "photo_comment",
                                             "photo_config",
                                             "photo_image",
                                             "photo_log",
                                             "photo_share",
                                             "photo_upload_right",
                                             "photo_user",
                                             "video_comment",
                                             "video_desc",
                                             "photo_access_right_for_hox_account",
                                             "photo_upload_right_for_hox_account",
                                             "photo_manage_right_for_hox_account",
                                             "photo_image_label",
                                             "photo_video_label",
                                             "category",
                                             "category_items",
                                             "photo_manage_right",
                                             "photo_group",
                                             "photo_group_permission",
                                             "photo_group_permission_for_hox_account",
                                             "photo_user_group",
                                             "watermark",
                                             "photo_personal_collection",
                                             "photo_personal_collection_for_hox_account",
                                             "photo_personal_collection_for_admin",
                                             "photo_personal_collection_photo",
                                             "photo_personal_collection_photo_for_admin",
                                             "photo_personal_collection_photo_for_hox_account",
                                             "photo_personal_collection_video",
                                             "photo_personal_collection_video_for_admin",
                                             "photo_personal_collection_video_for_hox_account"};
  EXPECT_THAT(std::vector<std::string>(kTableList.begin(), kTableList.end()), testing::ElementsAreArray(expected));
}

TEST(Registry, GivesEachMergedTableItsRoutineAndEndsWithAnEmptyName) {
  const std::vector<std::pair<std::string, MergeRoutine*>> expected = {
      {"photo_config", KavophotoSyncConfig},
      {"photo_image", KavophotoSyncImage},
      {"photo_log", KavophotoSyncLog},
      {"photo_share", KavophotoSyncShare},
      {"photo_user", KavophotoSyncUser},
      {"photo_group", KavophotoSyncGroup},
      {"video_comment", KavophotoSyncVideoComment},
      {"video_desc", KavophotoSyncVideoDesc},
      {"photo_label", KavophotoSyncPhotoLabel},
      {"photo_video_label", KavophotoSyncPhotoVideoLabel},
      {"category", KavophotoSyncCategory},
      {"category_items", KavophotoSyncCategoryItems},
      {"watermark", KavophotoSyncWatermark},
      {"", nullptr},
  };
  ASSERT_EQ(kMergeRoutines.size(), expected.size());
  for (std::size_t row = 0; row < expected.size(); ++row) {
    EXPECT_EQ(kMergeRoutines[row].table, expected[row].first);
    EXPECT_EQ(kMergeRoutines[row].routine, expected[row].second) << expected[row].first;
  }
}

}  // namespace
