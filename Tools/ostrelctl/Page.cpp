// How results are laid out.
//
// Columns are counted in characters as the terminal shows them, so colours are put around text only after it has been
// cut and padded.
#include "Page.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

namespace ostrelctl {

namespace {

constexpr size_t kLabelColumns = 11;
constexpr size_t kGaugeColumns = 24;
constexpr std::string_view kGap = "  ";

void Print(std::string_view text) {
    (void)fwrite(text.data(), 1, text.size(), stdout);
}

std::string Coloured(const Terminal& terminal, std::string_view colour, std::string_view text) {
    if (colour.empty() || text.empty()) return std::string(text);
    return std::string(colour) + std::string(text) + std::string(terminal.palette.reset);
}

std::string Repeated(std::string_view text, size_t times) {
    std::string all;
    for (; times > 0; --times) all += text;
    return all;
}

std::string GaugeText(const Terminal& terminal, const Gauge& gauge) {
    const double part = std::clamp(gauge.part, 0.0, 1.0);
    const auto filled = static_cast<size_t>(std::lround(part * kGaugeColumns));
    return Coloured(terminal, gauge.colour, Repeated(terminal.unicode ? "\u2501" : "#", filled)) +
           Coloured(terminal, terminal.palette.faint,
                    Repeated(terminal.unicode ? "\u2500" : "-", kGaugeColumns - filled));
}

void PrintField(const Terminal& terminal, const Field& field) {
    const size_t indent = kGap.size() + kLabelColumns;
    const size_t room = terminal.width > indent ? terminal.width - indent : 0;
    Print(kGap);
    Print(Coloured(terminal, terminal.palette.faint, Padded(field.label, kLabelColumns)));
    const bool hasGauge =
        terminal.interactive && field.gauge && kGaugeColumns + kGap.size() + Columns(field.value) <= room;
    if (hasGauge) {
        Print(GaugeText(terminal, *field.gauge));
        Print(kGap);
    }
    Print(Coloured(terminal, field.colour, Shortened(field.value, room, terminal.unicode)));
    Print("\n");
}

std::string MarkText(const Terminal& terminal, Mark mark) {
    const std::string_view full = terminal.unicode ? "\u25cf " : "* ";
    switch (mark) {
        case Mark::None:
            return {};
        case Mark::Nothing:
            return Coloured(terminal, terminal.palette.faint, terminal.unicode ? "\u25cb " : "- ");
        case Mark::Reserve:
            return Coloured(terminal, terminal.palette.warning, full);
        case Mark::Good:
            return Coloured(terminal, terminal.palette.good, full);
    }
    return {};
}

void PrintHeading(const Terminal& terminal, const Block& block) {
    constexpr size_t kMarkColumns = 2;
    size_t room = terminal.width;
    const auto put = [&terminal, &room](std::string_view colour, std::string_view text) {
        const std::string shown = Shortened(text, room, terminal.unicode);
        room -= std::min(room, Columns(shown));
        Print(Coloured(terminal, colour, shown));
    };
    if (terminal.interactive && block.mark != Mark::None && room > kMarkColumns) {
        room -= kMarkColumns;
        Print(MarkText(terminal, block.mark));
    }
    put(terminal.palette.strong, block.name);
    put({}, std::string(kGap) + block.role);
    if (!block.trouble.empty()) {
        put({}, ", ");
        put(terminal.palette.bad, block.trouble);
    }
    Print("\n");
}

std::vector<size_t> WidthsOf(const std::vector<Column>& columns, const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        size_t width = Columns(columns[i].title);
        for (const Row& row : rows) width = std::max(width, Columns(row.cells[i]));
        widths.push_back(width);
    }
    return widths;
}

size_t TotalOf(const std::vector<size_t>& widths) {
    return std::accumulate(widths.begin(), widths.end(), kGap.size() * (widths.size() - 1));
}

// Takes what the line is too long from the widest columns. False when they cannot give it.
bool Narrow(const std::vector<Column>& columns, size_t room, std::vector<size_t>& widths) {
    while (TotalOf(widths) > room) {
        size_t widest = columns.size();
        for (size_t i = 0; i < columns.size(); ++i)
            if (widths[i] > columns[i].least && (widest == columns.size() || widths[i] > widths[widest])) widest = i;
        if (widest == columns.size()) return false;
        --widths[widest];
    }
    return true;
}

void DropOne(std::vector<Column>& columns, std::vector<Row>& rows) {
    const auto last = std::max_element(columns.begin(), columns.end(),
                                       [](const Column& a, const Column& b) { return a.dropped < b.dropped; });
    const auto index = last - columns.begin();
    columns.erase(last);
    for (Row& row : rows) row.cells.erase(row.cells.begin() + index);
}

void PrintRow(const Terminal& terminal, const std::vector<size_t>& widths, const Row& row) {
    std::string text;
    for (size_t i = 0; i < widths.size(); ++i) {
        const std::string cell = Shortened(row.cells[i], widths[i], terminal.unicode);
        text += i + 1 < widths.size() ? Padded(cell, widths[i]) + std::string(kGap) : cell;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    Print(Coloured(terminal, row.colour, text) + '\n');
}

}  // namespace

void PrintBlocks(const Terminal& terminal, const std::vector<Block>& blocks) {
    for (const Block& block : blocks) {
        if (&block != &blocks.front()) Print("\n");
        PrintHeading(terminal, block);
        for (const Field& field : block.fields) PrintField(terminal, field);
    }
}

void PrintTable(const Terminal& terminal, std::vector<Column> columns, std::vector<Row> rows) {
    std::vector<size_t> widths = WidthsOf(columns, rows);
    while (!Narrow(columns, terminal.width, widths) && columns.size() > 1) {
        DropOne(columns, rows);
        widths = WidthsOf(columns, rows);
    }
    Row titles{.cells = {}, .colour = terminal.palette.faint};
    for (const Column& column : columns) titles.cells.emplace_back(column.title);
    PrintRow(terminal, widths, titles);
    for (const Row& row : rows) PrintRow(terminal, widths, row);
}

}  // namespace ostrelctl
