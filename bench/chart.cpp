#include "chart.h"

#include <algorithm>

#include "platform/text.h"
#include "report.h"

namespace bench {
namespace {

constexpr double kWidth = 900;
constexpr double kLeft = 250;
constexpr double kRight = 130;
constexpr double kBar = 11;
constexpr double kGap = 12;
constexpr double kPanelHead = 62;

constexpr const char* kDark = "#1f5f8b";
constexpr const char* kLight = "#9cc3dd";
constexpr const char* kGrey = "#b5b5b5";
constexpr const char* kMark = "#c0392b";
constexpr const char* kInk = "#222222";
constexpr const char* kFaint = "#666666";

std::string rectangle(double x, double y, double width, double height, const char* colour) {
  return formatText("<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"%s\"/>\n", x, y, width, height,
                    colour);
}

struct Style {
  const char* anchor = "start";
  int size = 12;
  const char* colour = kInk;
  const char* weight = "normal";
};

std::string label(double x, double y, const std::string& text, const Style& style) {
  return formatText(
      "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"%s\" font-size=\"%d\" fill=\"%s\" font-weight=\"%s\">%s</text>\n", x,
      y, style.anchor, style.size, style.colour, style.weight, text.c_str());
}

const Style kTitle = {"start", 15, kInk, "bold"};
const Style kNote = {"start", 11, kFaint, "normal"};
const Style kName = {"end", 12, kInk, "normal"};
const Style kValue = {"start", 11, kInk, "normal"};

struct Pair {
  const Figure* small;
  const Figure* whole;
};

double microsecondsARow(const Figure& figure) { return figure.seconds * 1e6 / static_cast<double>(figure.rows); }

std::vector<Pair> pairs(const std::vector<Figure>& figures) {
  std::vector<Pair> found;
  for (const Figure& figure : figures) {
    const Figure* small = smallestBelow(figures, figure);
    if (small != nullptr && figure.step != step::kBackupPrograms) {
      found.push_back({small, &figure});
    }
  }
  return found;
}

double room() { return kWidth - kLeft - kRight; }

// Draws from `y` on, which is moved below the panel.
std::string growthPanel(const std::vector<Figure>& figures, double& y) {
  const std::vector<Pair> steps = pairs(figures);
  if (steps.empty()) {
    return "";
  }
  double most = 1;
  for (const Pair& pair : steps) {
    most = std::max({most, microsecondsARow(*pair.small), microsecondsARow(*pair.whole)});
  }
  std::string svg = label(20, y + 24, "Microseconds a row", kTitle);
  svg +=
      label(20, y + 42, "Light: few rows. Dark: many. Equal bars mean that time grows in step with the rows.", kNote);
  y += kPanelHead;
  for (const Pair& pair : steps) {
    svg += label(kLeft - 10, y + kBar + 4, pair.whole->step, kName);
    for (const Figure* figure : {pair.small, pair.whole}) {
      const double time = microsecondsARow(*figure);
      const double length = std::max(1.0, room() * time / most);
      svg += rectangle(kLeft, y, length, kBar, figure == pair.small ? kLight : kDark);
      svg += label(kLeft + length + 5, y + kBar - 1.5,
                   formatText("%.0f (%s rows)", time, withCommas(figure->rows).c_str()), kValue);
      y += kBar + 1;
    }
    y += kGap;
  }
  return svg;
}

std::string comparisonPanel(const Plan& plan, const std::vector<Figure>& figures, double& y) {
  const std::vector<Comparison> comparisons = compare(plan, figures);
  double most = 1.3;
  for (const Comparison& comparison : comparisons) {
    most = std::max({most, comparison.share, comparison.target});
  }
  std::string svg = label(20, y + 24, "Time against what it is compared with", kTitle);
  svg += label(20, y + 42, "Blue: the tool. Grey: the reference, 100 %. Red mark: the most it may take.", kNote);
  y += kPanelHead;
  for (const Comparison& comparison : comparisons) {
    const double length = room() * comparison.share / most;
    const double reference = room() / most;
    svg += label(kLeft - 10, y + kBar - 1, comparison.what, kName);
    svg += label(kLeft - 10, y + 2 * kBar + 1, comparison.reference, {"end", 11, kFaint, "normal"});
    svg += rectangle(kLeft, y, length, kBar, kDark);
    svg += rectangle(kLeft, y + kBar + 1, reference, kBar, kGrey);
    svg += rectangle(kLeft + room() * comparison.target / most - 1, y - 3, 2, kBar + 6, kMark);
    svg += label(kLeft + std::max(length, room() * comparison.target / most) + 6, y + kBar - 1.5,
                 formatText("%.0f %%", comparison.share * 100), kValue);
    y += 2 * kBar + 1 + kGap;
  }
  return svg;
}

}  // namespace

std::string chartSvg(const Plan& plan, const std::vector<Figure>& figures) {
  double y = 10;
  std::string body = growthPanel(figures, y);
  body += comparisonPanel(plan, figures, y);
  y += 10;
  return formatText(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\" "
             "font-family=\"Helvetica, Arial, sans-serif\" role=\"img\">\n<title>kavophoto_backup: time a row and "
             "comparisons, %s photos%s</title>\n",
             kWidth, y, kWidth, y, withCommas(plan.rows).c_str(),
             plan.kind == Kind::kSlowDisk ? ", 10 ms a commit" : "") +
         rectangle(0, 0, kWidth, y, "#ffffff") + body + "</svg>\n";
}

}  // namespace bench
