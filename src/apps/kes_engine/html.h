// Text, tables and pictures of a page that stands alone.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kes_engine::html {

// Text as HTML has it: what has a meaning there is written otherwise, and so are control
// characters and bytes that are no UTF-8.
std::string Escaped(std::string_view text);

// "1 234 567", with narrow spaces that do not break.
std::string Grouped(uint64_t number);
// The same with so many digits behind the point.
std::string Decimal(double number, int digits);

// A cell of a table; numbers stand on the right.
struct Cell {
    std::string html;
    bool number = false;

    Cell(std::string_view text) : html(Escaped(text)) {}
    Cell(const std::string &text) : Cell(std::string_view(text)) {}
    Cell(const char *text) : Cell(std::string_view(text)) {}
    Cell(uint64_t value) : html(Grouped(value)), number(true) {}
    Cell(uint32_t value) : Cell(uint64_t{value}) {}
    Cell(double value, int digits) : html(Decimal(value, digits)), number(true) {}
};
using Row = std::vector<Cell>;

// A table with a caption; the first row has the headings, and the first cell of each other row is
// its heading. `id` is a name for programs.
std::string Table(std::string_view id, std::string_view caption, const std::vector<Row> &rows);

// Part of a bar or of a curve, in the colour of a class of the page's style.
struct Series {
    std::string name;
    std::string style;
    std::vector<double> values;
};

// Bars beside their names, each of one part for each series; `what` says it in words.
std::string Bars(std::string_view what, const std::vector<std::string> &names,
                 const std::vector<Series> &series);

// A mark on the axis of time.
struct Mark {
    double at;
    std::string text;
};
// Curves over seconds, one point between two times, one panel above the other on the same axis;
// marks go through all of them.
struct Panel {
    std::string unit;
    std::vector<Series> series;
    bool filled;  // down to zero
};
std::string Curves(std::string_view what, const std::vector<double> &times,
                   const std::vector<Panel> &panels, const std::vector<Mark> &marks);

// Names of series beside their colours.
std::string Legend(const std::vector<Series> &series);

// The whole page.
std::string Page(std::string_view title, std::string_view body);

}  // namespace kes_engine::html
