// How results are laid out: blocks of labelled lines, tables, and the bars beside them. On a terminal no line is longer
// than it is wide; elsewhere everything is whole and plain.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Terminal.h"

namespace ostrelctl {

// A bar that is filled to `part`, 0 to 1.
struct Gauge {
    double part = 0;
    std::string_view colour;
};

// "  label   value", with the gauge, on a terminal, before the value.
struct Field {
    const char* label;
    std::string value;
    std::string_view colour{};
    std::optional<Gauge> gauge{};
};

// The mark before an interface's name, on a terminal: an open dot, a yellow one, a green one.
enum class Mark { None, Nothing, Reserve, Good };

// An interface: its name and what it is, and after these what is wrong with it, if anything is.
struct Block {
    std::string name, role;
    std::string trouble{};
    Mark mark = Mark::None;
    std::vector<Field> fields{};
};

void PrintBlocks(const Terminal& terminal, const std::vector<Block>& blocks);

// A column is cut down to `least` columns where room is short, and then those of the highest `dropped` are left out.
struct Column {
    const char* title;
    size_t least;
    int dropped;
};

struct Row {
    std::vector<std::string> cells;
    std::string_view colour{};
};

void PrintTable(const Terminal& terminal, std::vector<Column> columns, std::vector<Row> rows);

}  // namespace ostrelctl
