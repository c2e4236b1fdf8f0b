#include "merge/common.h"
#include "merge/merge.h"
#include "platform/overwrite_mode.h"

namespace {

constexpr int kLookUpFailed = -2;
constexpr int kWriteFailed = -3;

// A row of watermark, taken over as it stands: nothing is cut or escaped, and the share keeps the number it had in the
// source.
struct Watermark {
  Raw share;
  Raw path;
  Raw opacity;
  Raw gravity;
  Raw size;
  Raw hash;
  Raw modified;
  Raw changed;
};

std::vector<std::string> keysOf(const Watermark& watermark) {
  if (!isPrintedNumber(watermark.share.text)) {
    return {};
  }
  return {watermark.share.text};
}

std::optional<Watermark> readWatermark(const Result& row) {
  return Watermark{rawField(row, "shareid"), rawField(row, "path"), rawField(row, "opacity"), rawField(row, "gravity"),
                   rawField(row, "size"),    rawField(row, "hash"), rawField(row, "mtime"),   rawField(row, "changed")};
}

bool insertWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  return execute(destination,
                 "INSERT INTO watermark (shareid, path, opacity, gravity, size, hash, mtime, changed) "
                 "VALUES (%s, '%s', %s, %s, %s, '%s', %s, '%s')",
                 watermark.share, watermark.path, watermark.opacity, watermark.gravity, watermark.size, watermark.hash,
                 watermark.modified, watermark.changed);
}

bool updateWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  return execute(destination,
                 "UPDATE watermark SET path = '%s', opacity = %s, gravity = %s, size = %s, hash = '%s', mtime = %s, "
                 "changed = '%s' WHERE shareid = %s",
                 watermark.path, watermark.opacity, watermark.gravity, watermark.size, watermark.hash,
                 watermark.modified, watermark.changed, watermark.share);
}

int mergeWatermark(DBConnect_tag* destination, const Watermark& watermark) {
  Result live;
  if (!execute(destination, live, "SELECT * FROM watermark WHERE shareid = %s", watermark.share)) {
    return kLookUpFailed;
  }
  if (!hasRows(live)) {
    return insertWatermark(destination, watermark) ? 0 : kWriteFailed;
  }
  return !gIsOverwiroteMode || updateWatermark(destination, watermark) ? 0 : kWriteFailed;
}

}  // namespace

int KavophotoSyncWatermark(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix) {
  Result watermarks;
  // A source without the table has no watermarks to merge, which is no failure.
  const std::string listing = statementText(sql("SELECT * FROM watermark%s", Name(suffix)));
  if (KAVODBExecute(source, listing.c_str(), &watermarks.handle) == -1) {
    return 0;
  }
  return forEachRow({destination, source, {{"watermark", {"shareid"}}}}, watermarks, readWatermark,
                    [&](const Watermark& watermark) { return mergeWatermark(destination, watermark); });
}
