#include "api/error_descriptions.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "platform/environment.h"

namespace qv {
namespace {

struct ResultRow {
  uint32_t value;  // The code as the table writes it; the rows are sorted by this.
  std::string_view name;
  std::u16string_view text;  // Empty on an alias row: the row above it holds the text.
  bool alias;
};

constexpr ResultRow kRows[] = {
#define VEKX_RESULT(NAME, VALUE, TEXT) {UINT32_C(VALUE), #NAME, TEXT, false},
#define VEKX_RESULT_ALIAS(NAME, VALUE) {UINT32_C(VALUE), #NAME, {}, true},
#include "vekxapi/result_codes.def"
};

// FindRow binary-searches kRows and relies on the first row of a value being the one with the
// text and the first name. So: values strictly increase (compared unsigned, which puts
// KXAPI_SUCCESS first), except that an alias row repeats the value of the named row just above it.
constexpr bool RowsAreOrdered() {
  if (kRows[0].alias) return false;
  for (size_t i = 1; i < std::size(kRows); ++i) {
    const ResultRow& row = kRows[i];
    const ResultRow& previous = kRows[i - 1];
    if (row.alias ? (previous.alias || row.value != previous.value) : row.value <= previous.value) {
      return false;
    }
  }
  return true;
}
static_assert(RowsAreOrdered(),
              "result_codes.def: rows must be in increasing value order, and an alias row must "
              "repeat the value of the row above it");

constexpr bool EveryCodeHasText() {
  for (const ResultRow& row : kRows) {
    if (!row.alias && row.text.empty()) return false;
  }
  return true;
}
static_assert(EveryCodeHasText(), "result_codes.def: every named code needs a description");

// The named (non-alias) row of `code`, or null when the table has no row for it.
const ResultRow* FindRow(int32_t code) noexcept {
  const uint32_t value = static_cast<uint32_t>(code);
  const ResultRow* row =
      std::lower_bound(std::begin(kRows), std::end(kRows), value,
                       [](const ResultRow& r, uint32_t v) { return r.value < v; });
  if (row == std::end(kRows) || row->value != value) return nullptr;
  return row;  // lower_bound stops at the first row of the value, never at its alias.
}

}  // namespace

std::optional<std::u16string_view> LookupErrorDescription(int32_t code) noexcept {
  const ResultRow* row = FindRow(code);
  if (row == nullptr) return std::nullopt;
  return row->text;
}

std::optional<std::string_view> ErrorCodeName(int32_t code) noexcept {
  const ResultRow* row = FindRow(code);
  if (row == nullptr) return std::nullopt;
  return row->name;
}

std::optional<int32_t> ErrorCodeFromName(std::string_view name) noexcept {
  const ResultRow* row = std::find_if(std::begin(kRows), std::end(kRows),
                                      [name](const ResultRow& r) { return r.name == name; });
  if (row == std::end(kRows)) return std::nullopt;
  return static_cast<int32_t>(row->value);
}

std::optional<std::u16string> ExpandedErrorDescription(int32_t code) noexcept {
  const std::optional<std::u16string_view> text = LookupErrorDescription(code);
  if (!text) return std::nullopt;
  std::optional<std::u16string> expanded = platform::ExpandEnvironment(*text);
  // A code with a description always yields a string; a failed expansion makes it empty
  // rather than pretending the code is unknown.
  if (!expanded) return std::u16string();
  return expanded;
}

}  // namespace qv
