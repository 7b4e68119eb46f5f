#include "output.h"

#include <algorithm>
#include <ostream>

namespace vesta_ctrl {
namespace {

void PrintPadded(std::ostream& out, const std::string& text, std::size_t width) {
  out << text;
  for (std::size_t pad = DisplayWidth(text); pad < width; ++pad)
    out << ' ';
}

}  // namespace

std::size_t DisplayWidth(const std::string& text) {
  // Continuation bytes (10xxxxxx) do not start a code point.
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void Table::Print(std::ostream& out) const {
  std::vector<std::size_t> widths(headers_.size());
  for (std::size_t column = 0; column < headers_.size(); ++column)
    widths[column] = DisplayWidth(headers_[column]);
  for (const auto& row : rows_) {
    for (std::size_t column = 0; column < row.size() && column < widths.size(); ++column)
      widths[column] = std::max(widths[column], DisplayWidth(row[column]));
  }
  auto print_row = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t column = 0; column < widths.size(); ++column) {
      const std::string& cell = column < cells.size() ? cells[column] : std::string();
      if (column > 0) line += "  ";
      line += cell;
      for (std::size_t pad = DisplayWidth(cell); pad < widths[column]; ++pad)
        line += ' ';
    }
    // Blank cells at the end of a row leave no trailing blanks.
    line.erase(line.find_last_not_of(' ') + 1);
    out << line << '\n';
  };
  print_row(headers_);
  for (const auto& row : rows_)
    print_row(row);
}

void PrintFields(std::ostream& out,
                 const std::vector<std::pair<std::string, std::string>>& fields) {
  std::size_t width = 0;
  for (const auto& [label, value] : fields)
    width = std::max(width, DisplayWidth(label) + 1);
  for (const auto& [label, value] : fields) {
    PrintPadded(out, label + ":", width);
    out << "  " << value << '\n';
  }
}

void PrintJson(std::ostream& out, const nlohmann::json& document) {
  // Replace rather than throw on text that is not UTF-8: a kit's name is not ours to trust.
  out << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

void PrintOrderedJson(std::ostream& out, const nlohmann::ordered_json& document) {
  out << document.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

}  // namespace vesta_ctrl
