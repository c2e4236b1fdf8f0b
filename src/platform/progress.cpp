#include "platform/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

#include "platform/text.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kDrawsPerSecond = 10;
// Rows and tables are drawn half as often as the line may be, so that there is room for a new phase at once: a phase
// that starts a long program shows nothing else for a while.
constexpr auto kRowInterval = std::chrono::milliseconds(2000) / kDrawsPerSecond;

struct Listing {
  const void* result = nullptr;
  long long total = 0;
  long long done = 0;
  Clock::time_point start;
};

struct Progress {
  const char* phase = "";
  const char* table = nullptr;
  std::size_t place = 0;
  std::size_t of = 0;
  Listing listing;
  // When the last lines were drawn, the oldest at `next`.
  std::array<Clock::time_point, kDrawsPerSecond> draws;
  std::size_t next = 0;
  std::size_t shown = 0;
};

Progress& progress() {
  static Progress state;
  return state;
}

// What is written may be lost; that is no reason to fail, and the caller's errno is not ours to change.
void writeLine(const std::string& text) {
  const int saved = errno;
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text.data(), text.size());
  errno = saved;
}

void clearLine() {
  const std::size_t shown = progress().shown;
  if (shown > 0) {
    writeLine("\r" + std::string(shown, ' ') + "\r");
  }
}

bool isShown() {
  static const bool terminal = [] {
    const int saved = errno;
    const bool is = isatty(STDERR_FILENO) == 1;
    errno = saved;
    if (is) {
      // Made before the handler is registered, so that it outlives it.
      progress();
      std::atexit(clearLine);
    }
    return is;
  }();
  return terminal;
}

std::size_t terminalWidth() {
  constexpr std::size_t kUsual = 80;
  winsize size = {};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : kUsual;
}

std::string timeText(long long seconds) {
  constexpr long long kSixty = 60;
  const long long minutes = seconds / kSixty;
  return minutes < kSixty ? formatText("%lld:%02lld", minutes, seconds % kSixty)
                          : formatText("%lld:%02lld:%02lld", minutes / kSixty, minutes % kSixty, seconds % kSixty);
}

std::string listingText(const Listing& listing, Clock::time_point now) {
  std::string text = formatText(", %lld of %lld rows", listing.done, listing.total);
  const double seconds = std::chrono::duration<double>(now - listing.start).count();
  // In the first moment the rate says nothing yet.
  constexpr double kMeaningful = 0.5;
  if (seconds < kMeaningful) {
    return text;
  }
  const double rate = static_cast<double>(listing.done) / seconds;
  const double left = static_cast<double>(listing.total - listing.done) / rate;
  return text + formatText(", %.0f a second, %s left", rate, timeText(static_cast<long long>(left)).c_str());
}

std::string lineText(const Progress& state, Clock::time_point now) {
  std::string text = state.phase;
  if (state.table != nullptr) {
    text.append(" ").append(state.table);
  }
  if (state.of > 0) {
    text += formatText(" (%zu of %zu)", state.place, state.of);
  }
  if (state.listing.result != nullptr) {
    text += listingText(state.listing, now);
  }
  return text;
}

// The cursor goes back to the line's beginning, so that what anybody else writes begins there. A full line would
// scroll.
void draw(Progress& state, Clock::time_point now) {
  std::string text = lineText(state, now).substr(0, terminalWidth() - 1);
  const std::size_t length = text.size();
  if (length < state.shown) {
    text.append(state.shown - length, ' ');
  }
  state.shown = length;
  state.draws[state.next] = now;
  state.next = (state.next + 1) % state.draws.size();
  writeLine("\r" + text + "\r");
}

Clock::time_point lastDraw(const Progress& state) {
  return state.draws[(state.next + state.draws.size() - 1) % state.draws.size()];
}

void drawIfDue(Progress& state, Clock::duration interval) {
  const Clock::time_point now = Clock::now();
  if (now - lastDraw(state) >= interval && now - state.draws[state.next] >= std::chrono::seconds(1)) {
    draw(state, now);
  }
}

void beginTable(Progress& state, const char* table, std::size_t place, std::size_t of) {
  state.table = table;
  state.place = place;
  state.of = of;
  state.listing = {};
}

}  // namespace

void progressPhase(const char* phase) {
  if (!isShown()) {
    return;
  }
  Progress& state = progress();
  state.phase = phase;
  beginTable(state, nullptr, 0, 0);
  drawIfDue(state, Clock::duration::zero());
}

void progressTable(const char* table, std::size_t place, std::size_t of) {
  if (!isShown()) {
    return;
  }
  Progress& state = progress();
  beginTable(state, table, place, of);
  drawIfDue(state, kRowInterval);
}

void progressRow(const void* result, long long total) {
  progressRowsUpTo(result, total, result == progress().listing.result ? progress().listing.done + 1 : 1);
}

void progressRowsUpTo(const void* result, long long total, long long place) {
  if (!isShown()) {
    return;
  }
  Progress& state = progress();
  // Before the first phase there is no line.
  if (*state.phase == '\0') {
    return;
  }
  Listing& listing = state.listing;
  if (listing.result == nullptr && total > 1) {
    listing = {result, total, 0, Clock::now()};
  }
  if (result != listing.result || place == 0) {
    return;
  }
  // Rows that are taken back and run again do not turn the line back.
  listing.done = std::max(listing.done, place);
  drawIfDue(state, kRowInterval);
}

void progressRowsEnd(const void* result) {
  Listing& listing = progress().listing;
  if (result == listing.result) {
    listing = {};
  }
}
