#pragma once
// What the commands print: aligned columns and label/value lists for people, one JSON document
// for scripts (the shapes are documented in docs/vesta-ctrl.md and kept stable).

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace vesta_ctrl {

// Columns padded to their widest cell, two blanks apart, the header first. Widths count code
// points, so that names in other scripts line up too.
class Table {
 public:
  explicit Table(std::vector<std::string> headers) : headers_(std::move(headers)) {}
  // A row with fewer cells than headers leaves the rest blank.
  void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void Print(std::ostream& out) const;

 private:
  std::vector<std::string> headers_;
  std::vector<std::vector<std::string>> rows_;
};

// "label:  value" lines with the values aligned.
void PrintFields(std::ostream& out, const std::vector<std::pair<std::string, std::string>>& fields);

// One JSON document on one line.
void PrintJson(std::ostream& out, const nlohmann::json& document);
// The same, with the fields in the order they were added rather than sorted.
void PrintOrderedJson(std::ostream& out, const nlohmann::ordered_json& document);

// The number of code points of UTF-8 `text`.
std::size_t DisplayWidth(const std::string& text);

}  // namespace vesta_ctrl
