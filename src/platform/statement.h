#pragma once

#include <concepts>
#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// SQL as a template and its values. A template is a literal that the compiler checks against the types of the values; a
// type says how its values are inserted. A statement cannot be made of a string that is put together at run time.

// A text that is inserted between quotes, escaped.
struct Text {
  std::string text;
};

// A value that is inserted as the source holds it, between quotes or bare. A statement with one that would break out of
// its place is not run: between quotes, single quotes must come in pairs; bare, only the characters of numbers and sums
// may occur, and no comment.
struct Raw {
  Raw() = default;
  explicit Raw(std::string value) : text(std::move(value)) {}

  std::string text;
};

// NULL for the empty text; otherwise the text as the source holds it, between quotes. Bare in a template.
struct QuotedOrNull {
  Raw value;
};

// A list of texts, each quoted and escaped, or of numbers as they are; for "IN (%s)". A statement with anything else in
// the place of a list is not run.
struct List {
  static List of(const std::vector<std::string>& texts, const char* separator);
  static List ofNumbers(const std::string& numbers) { return {numbers}; }

  std::string text;
};

// A name, or the end of one, of a table or column: letters, digits and underscores. Anything else fails in a statement.
struct Name {
  Name(const char* name) : text(name) {}                 // NOLINT(google-explicit-constructor)
  Name(const std::string& name) : text(name.c_str()) {}  // NOLINT(google-explicit-constructor)

  const char* text;
};

template <typename Value>
concept StatementValue = std::same_as<Value, Text> || std::same_as<Value, Raw> || std::same_as<Value, QuotedOrNull> ||
    std::same_as<Value, List> || std::same_as<Value, Name> || std::integral<Value>;

// Where a value stands in a template: at "%s". "%%" is a percent sign.
struct TemplatePlace {
  std::size_t begin;
  std::size_t end;
  // It is all that stands between a pair of quotes.
  bool hasOwnQuotes;
  bool isInsideText;
};

// The next place at or after `from`; begin is npos when there is none. `insideText` says whether `from` is between
// quotes, and is brought forward.
constexpr TemplatePlace nextPlace(std::string_view text, std::size_t from, bool& insideText) {
  for (std::size_t at = from; at < text.size(); ++at) {
    if (text[at] == '\'') {
      insideText = !insideText;
    } else if (text[at] == '%' && at + 1 < text.size() && text[at + 1] == '%') {
      ++at;
    } else if (text[at] == '%') {
      const bool hasOwnQuotes =
          insideText && at > 0 && text[at - 1] == '\'' && at + 2 < text.size() && text[at + 2] == '\'';
      return {at, at + 2, hasOwnQuotes, insideText};
    }
  }
  return {std::string_view::npos, text.size(), false, false};
}

// False for SQL whose quotes may mean something else than the beginning and end of a text: comments, names in double
// quotes, dollar quotes, and texts with a letter before them, such as E'...'.
constexpr bool isPlainSql(std::string_view text) {
  bool insideText = false;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::string_view two = text.substr(at, 2);
    const char before = at > 0 ? text[at - 1] : ' ';
    const bool followsWord =
        (before >= 'a' && before <= 'z') || (before >= 'A' && before <= 'Z') || before == '&' || before == '_';
    if (text[at] == '"' || text[at] == '$' || two == "--" || two == "/*" ||
        (text[at] == '\'' && !insideText && followsWord)) {
      return false;
    }
    insideText = (text[at] == '\'') != insideText;
  }
  return true;
}

template <typename Value>
constexpr bool fits(const TemplatePlace& place) {
  if constexpr (std::same_as<Value, Name>) {
    return true;
  } else if constexpr (std::same_as<Value, Text>) {
    return place.hasOwnQuotes;
  } else if constexpr (std::same_as<Value, List> || std::same_as<Value, QuotedOrNull>) {
    return !place.isInsideText;
  } else {
    return place.hasOwnQuotes || !place.isInsideText;
  }
}

// Never defined: a template that calls it while it is compiled does not compile.
void placesAndValuesOfTheTemplateDoNotMatch();

// A literal, and the line where it stands. It cannot be made of anything else.
struct Literal {
  template <std::size_t size>
  consteval Literal(const char (&literal)[size], int at) : text(literal), line(at) {}

  const std::string_view text;
  const int line;
};

// A literal with a place for each of `Values`.
template <typename... Values>
struct Template : Literal {
  template <std::size_t size>
  consteval Template(const char (&literal)[size], int at = __builtin_LINE())  // NOLINT(google-explicit-constructor)
      : Literal(literal, at) {
    if (sizeof...(Values) > 0 && !isPlainSql(text)) {
      placesAndValuesOfTheTemplateDoNotMatch();
    }
    std::size_t from = 0;
    bool insideText = false;
    [[maybe_unused]] const auto check = [&](auto fitsHere) {
      const TemplatePlace place = nextPlace(text, from, insideText);
      if (place.begin == std::string_view::npos || text.substr(place.begin, 2) != "%s" || !fitsHere(place)) {
        placesAndValuesOfTheTemplateDoNotMatch();
      }
      from = place.end;
    };
    (check(fits<Values>), ...);
    if (nextPlace(text, from, insideText).begin != std::string_view::npos) {
      placesAndValuesOfTheTemplateDoNotMatch();
    }
  }
};

// A value in the form in which statements use it.
struct Argument {
  enum class Kind { kText, kRaw, kNumber, kQuotedOrNull, kList, kName };

  explicit Argument(const Text& value) : kind(Kind::kText), text(value.text) {}
  explicit Argument(const Raw& value) : kind(Kind::kRaw), text(value.text) {}
  explicit Argument(const QuotedOrNull& value) : kind(Kind::kQuotedOrNull), text(value.value.text) {}
  explicit Argument(const List& value) : kind(Kind::kList), text(value.text) {}
  explicit Argument(const Name& value) : kind(Kind::kName), text(value.text) {}
  template <std::integral Number>
  explicit Argument(Number value) : kind(Kind::kNumber), text(std::to_string(value)) {}

  Kind kind;
  std::string text;
};

// A template and a copy of the value for each of its places. It is made of nothing else.
struct Statement : Literal {
  template <typename... Values>
  explicit Statement(const Template<Values...>& literal, const Values&... values)
      : Literal(literal), arguments{Argument(values)...} {}

  const std::vector<Argument> arguments;
};

template <typename... Values>
requires(StatementValue<Values>&&...) Statement
    sql(std::type_identity_t<Template<Values...>> text, const Values&... values) {
  return Statement(text, values...);
}

// True when every value keeps its place.
bool valuesKeepTheirPlaces(const Statement& statement);

// The statement with its values in it, as messages show it and as the server may be sent it.
std::string statementText(const Statement& statement);

// The same statement with its values apart: $1, $2, ... in its text. Names and lists stay in the text.
std::string parameterText(const Statement& statement);

// The values of such a statement. The server decides about each of them as about the literal: a number has the type
// that it has in SQL, what stands between quotes has none of its own.
struct Parameters {
  // Null for NULL. They point into the statement and into `unescaped`.
  std::vector<const char*> values;
  // The server's numbers of the types; 0 where the place decides.
  std::vector<unsigned> types;
  std::deque<std::string> unescaped;
  // The same for two statements when their parameter texts and types are.
  std::string key;
};

// False when only the text says the same: one of the values is a list, or a sum in the place of a number, say, or does
// not keep its place.
bool separateParameters(const Statement& statement, Parameters& parameters);
