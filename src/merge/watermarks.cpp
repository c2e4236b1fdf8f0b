#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"
#include "platform/text.h"

namespace {

constexpr int kLookUpFailed = -2;
constexpr int kWriteFailed = -3;

// A row of watermark, taken over as it stands: nothing is cut or escaped, and the share keeps the number it had in the
// source.
struct Watermark {
  std::string share;
  std::string path;
  std::string opacity;
  std::string gravity;
  std::string size;
  std::string hash;
  std::string modified;
  std::string changed;
};

Watermark readWatermark(const Result& row) {
  Watermark watermark;
  watermark.share = fieldText(row, "shareid");
  watermark.path = fieldText(row, "path");
  watermark.opacity = fieldText(row, "opacity");
  watermark.gravity = fieldText(row, "gravity");
  watermark.size = fieldText(row, "size");
  watermark.hash = fieldText(row, "hash");
  watermark.modified = fieldText(row, "mtime");
  watermark.changed = fieldText(row, "changed");
  return watermark;
}

RawValues rawValues(const Watermark& watermark) {
  return {{watermark.path, watermark.hash, watermark.changed},
          {watermark.share, watermark.opacity, watermark.gravity, watermark.size, watermark.modified}};
}

bool insertWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  return execute(
      destination,
      formatText("INSERT INTO watermark (shareid, path, opacity, gravity, size, hash, mtime, changed) "
                 "VALUES (%s, '%s', %s, %s, %s, '%s', %s, '%s')",
                 watermark.share.c_str(), watermark.path.c_str(), watermark.opacity.c_str(), watermark.gravity.c_str(),
                 watermark.size.c_str(), watermark.hash.c_str(), watermark.modified.c_str(), watermark.changed.c_str()),
      rawValues(watermark));
}

bool updateWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  return execute(destination,
                 formatText("UPDATE watermark SET path = '%s', opacity = %s, gravity = %s, size = %s, hash = '%s', "
                            "mtime = %s, changed = '%s' WHERE shareid = %s",
                            watermark.path.c_str(), watermark.opacity.c_str(), watermark.gravity.c_str(),
                            watermark.size.c_str(), watermark.hash.c_str(), watermark.modified.c_str(),
                            watermark.changed.c_str(), watermark.share.c_str()),
                 rawValues(watermark));
}

int mergeWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  Result live;
  if (!execute(destination, formatText("SELECT * FROM watermark WHERE shareid = %s", watermark.share.c_str()),
               {{}, {watermark.share}}, live)) {
    return kLookUpFailed;
  }
  if (!hasRows(live)) {
    return insertWatermark(destination, watermark) ? 0 : kWriteFailed;
  }
  if (!gIsOverwiroteMode) {
    return 0;
  }
  return updateWatermark(destination, watermark) ? 0 : kWriteFailed;
}

}  // namespace

int KavophotoSyncWatermark(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result watermarks;
  // A source without the table has no watermarks to merge, which is no failure.
  if (KAVODBExecute(source, formatText("SELECT * FROM watermark%s", suffix).c_str(), &watermarks.handle) == -1) {
    return 0;
  }
  while (fetchRow(watermarks)) {
    const int status = mergeWatermark(destination, readWatermark(watermarks));
    if (status < 0) {
      return status;
    }
  }
  return 0;
}
