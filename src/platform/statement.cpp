#include "platform/statement.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace {

// pg_type.oid of the types that a number in SQL may have.
constexpr unsigned kInt4 = 23;
constexpr unsigned kInt8 = 20;
constexpr unsigned kNumeric = 1700;

// Inside quotes a doubled quote is one character of the text; a single one ends it.
bool hasQuotesInPairs(std::string_view value) {
  for (std::size_t at = value.find('\''); at != std::string_view::npos; at = value.find('\'', at + 2)) {
    if (value.substr(at, 2) != "''") {
      return false;
    }
  }
  return true;
}

// Two dashes begin a comment.
bool isNumeric(std::string_view value) {
  return value.find_first_not_of("0123456789.eE+- ") == std::string_view::npos &&
         value.find("--") == std::string_view::npos;
}

bool isName(std::string_view name) {
  return name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_") ==
         std::string_view::npos;
}

void appendEscaped(std::string& escaped, std::string_view text) {
  for (const char character : text) {
    escaped.append(character == '\'' ? 2 : 1, character);
  }
}

std::string withoutDoubledQuotes(std::string_view text) {
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    plain += text[at];
    at += text[at] == '\'' ? 1U : 0U;
  }
  return plain;
}

// The type that the server gives a number in SQL; nothing (0) for what is more than one number.
unsigned typeOfNumber(std::string_view number) {
  const std::string_view digits = number.substr(number.substr(0, 1) == "-" ? 1 : 0);
  const std::size_t point = std::min(digits.find('.'), digits.size());
  const bool isPlain = point > 0 && digits.find_first_not_of("0123456789.") == std::string_view::npos &&
                       digits.find('.', std::min(point + 1, digits.size())) == std::string_view::npos;
  if (!isPlain) {
    return 0;
  }
  std::int64_t value = 0;
  const auto read = std::from_chars(number.data(), number.data() + number.size(), value);
  if (point < digits.size() || read.ec != std::errc()) {
    return kNumeric;
  }
  // The minus is an operator in SQL, and what it stands before must fit the type.
  const bool isInt4 = value > INT32_MIN && value <= INT32_MAX;
  return isInt4 ? kInt4 : value > INT64_MIN ? kInt8 : kNumeric;
}

// Quoted texts or numbers, with commas and blanks between them.
bool isList(std::string_view list) {
  constexpr std::string_view kBetween = ", ";
  if (list.find_first_not_of("0123456789, ") == std::string_view::npos) {
    return true;
  }
  while (!list.empty()) {
    if (list.front() != '\'') {
      return false;
    }
    std::size_t end = list.find('\'', 1);
    while (end != std::string_view::npos && list.substr(end, 2) == "''") {
      end = list.find('\'', end + 2);
    }
    if (end == std::string_view::npos) {
      return false;
    }
    list.remove_prefix(end + 1);
    list.remove_prefix(std::min(list.find_first_not_of(kBetween), list.size()));
  }
  return true;
}

// Decided here for every value of every statement.
bool keepsItsPlace(const Argument& argument, const TemplatePlace& place) {
  switch (argument.kind) {
    case Argument::Kind::kText:
      return place.hasOwnQuotes;
    case Argument::Kind::kRaw:
      return place.hasOwnQuotes ? hasQuotesInPairs(argument.text) : !place.isInsideText && isNumeric(argument.text);
    case Argument::Kind::kQuotedOrNull:
      return hasQuotesInPairs(argument.text);
    case Argument::Kind::kList:
      return isList(argument.text);
    case Argument::Kind::kName:
      return isName(argument.text);
    case Argument::Kind::kNumber:
      return true;
  }
  return false;
}

void appendArgument(std::string& text, const Argument& argument) {
  switch (argument.kind) {
    case Argument::Kind::kText:
      appendEscaped(text, argument.text);
      break;
    case Argument::Kind::kQuotedOrNull:
      text += argument.text.empty() ? "NULL" : "'" + argument.text + "'";
      break;
    case Argument::Kind::kRaw:
    case Argument::Kind::kNumber:
    case Argument::Kind::kList:
    case Argument::Kind::kName:
      text += argument.text;
      break;
  }
}

// Calls take(argument, place) at each place of the template until it returns false.
template <typename Take>
bool forEachPlace(const Statement& statement, Take take) {
  std::size_t from = 0;
  bool insideText = false;
  for (const Argument& argument : statement.arguments) {
    const TemplatePlace place = nextPlace(statement.text, from, insideText);
    if (!take(argument, place)) {
      return false;
    }
    from = place.end;
  }
  return true;
}

void appendPlain(std::string& text, std::string_view part) {
  for (std::size_t at = 0; at < part.size(); ++at) {
    text += part[at];
    at += part.substr(at, 2) == "%%" ? 1U : 0U;
  }
}

bool staysInText(const Argument& argument) {
  return argument.kind == Argument::Kind::kName || argument.kind == Argument::Kind::kList;
}

}  // namespace

List List::of(const std::vector<std::string>& texts, const char* separator) {
  List list;
  for (const std::string& text : texts) {
    list.text.append(list.text.empty() ? "" : separator).append("'");
    appendEscaped(list.text, text);
    list.text.append("'");
  }
  return list;
}

bool valuesKeepTheirPlaces(const Statement& statement) { return forEachPlace(statement, keepsItsPlace); }

std::string statementText(const Statement& statement) {
  std::string text;
  std::size_t from = 0;
  forEachPlace(statement, [&](const Argument& argument, const TemplatePlace& place) {
    appendPlain(text, statement.text.substr(from, place.begin - from));
    appendArgument(text, argument);
    from = place.end;
    return true;
  });
  appendPlain(text, statement.text.substr(from));
  return text;
}

std::string parameterText(const Statement& statement) {
  std::string text;
  std::size_t from = 0;
  int parameter = 0;
  forEachPlace(statement, [&](const Argument& argument, const TemplatePlace& place) {
    const std::size_t quote = !staysInText(argument) && place.hasOwnQuotes ? 1 : 0;
    appendPlain(text, statement.text.substr(from, place.begin - quote - from));
    if (staysInText(argument)) {
      text += argument.text;
    } else {
      text += "$" + std::to_string(++parameter);
    }
    from = place.end + quote;
    return true;
  });
  appendPlain(text, statement.text.substr(from));
  return text;
}

bool separateParameters(const Statement& statement, Parameters& parameters) {
  const char* const begin = statement.text.data();
  parameters.key.assign(reinterpret_cast<const char*>(&begin), sizeof begin);
  return forEachPlace(statement, [&parameters](const Argument& argument, const TemplatePlace& place) {
    if (!keepsItsPlace(argument, place)) {
      return false;
    }
    if (argument.kind == Argument::Kind::kName) {
      parameters.key.append(argument.text).push_back('\0');
      return true;
    }
    const bool isNumber = !place.hasOwnQuotes && argument.kind != Argument::Kind::kQuotedOrNull;
    const unsigned type = isNumber ? typeOfNumber(argument.text) : 0;
    if (argument.kind == Argument::Kind::kList || (isNumber && type == 0)) {
      return false;
    }
    const bool isRaw = !isNumber && argument.kind != Argument::Kind::kText;
    const char* value = argument.text.c_str();
    if (isRaw && argument.text.find('\'') != std::string::npos) {
      value = parameters.unescaped.emplace_back(withoutDoubledQuotes(argument.text)).c_str();
    } else if (argument.kind == Argument::Kind::kQuotedOrNull && argument.text.empty()) {
      value = nullptr;
    }
    parameters.values.push_back(value);
    parameters.types.push_back(type);
    parameters.key.push_back(type == 0 ? '.' : type == kInt4 ? '4' : type == kInt8 ? '8' : 'n');
    return true;
  });
}
