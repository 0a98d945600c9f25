#include "html.h"

#include <algorithm>
#include <cstdio>

namespace kes_engine::html {
namespace {

constexpr const char *kReplacement = "\xEF\xBF\xBD";
constexpr const char *kNarrowSpace = "\xE2\x80\xAF";

// The bytes of a character of UTF-8 at the beginning of a text; 0 where there is none.
size_t CharacterLength(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = byte(0) < 0x80                       ? 1
                          : byte(0) >= 0xC2 && byte(0) < 0xE0  ? 2
                          : byte(0) >= 0xE0 && byte(0) < 0xF0  ? 3
                          : byte(0) >= 0xF0 && byte(0) <= 0xF4 ? 4
                                                               : 0;
    if (length == 0 || length > text.size()) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Not the shortest form, half of a pair, or beyond the last character.
    const bool wrong = (byte(0) == 0xE0 && byte(1) < 0xA0) || (byte(0) == 0xED && byte(1) > 0x9F) ||
                       (byte(0) == 0xF0 && byte(1) < 0x90) || (byte(0) == 0xF4 && byte(1) > 0x8F);
    return wrong ? 0 : length;
}

constexpr const char *kStyle = R"(
:root { color-scheme: light dark; --back: #fff; --text: #1c2430; --soft: #5b6675; --line: #d5dae1;
  --card: #f5f7f9; --taken: #1a7f5a; --returned: #5c7fb0; --undelivered: #c8471c; --transmitted: #8560c0;
  --wapi: #b98900; --bad: #b3261e; }
@media (prefers-color-scheme: dark) { :root { --back: #14181e; --text: #e4e8ee; --soft: #9aa6b5;
  --line: #343c48; --card: #1c222b; --taken: #3fb489; --returned: #7fa3d8; --undelivered: #f07b4d;
  --transmitted: #ab8ae6; --wapi: #e0b43c; --bad: #ff8a80; } }
* { box-sizing: border-box; }
body { background: var(--back); color: var(--text); margin: 0 auto; max-width: 62rem;
  padding: 1.5rem; font: 15px/1.45 system-ui, "DejaVu Sans", sans-serif; }
h1 { font-size: 1.5rem; margin: 0; overflow-wrap: anywhere; }
h2 { font-size: 1.1rem; margin: 2.2rem 0 .6rem; }
p { margin: .3rem 0; }
.soft { color: var(--soft); }
.bad { color: var(--bad); }
.tiles { display: flex; flex-wrap: wrap; gap: .6rem; margin: 1.2rem 0 0; padding: 0; }
.tiles div { background: var(--card); border: 1px solid var(--line); border-radius: .4rem;
  padding: .45rem .8rem; flex: 1 1 7rem; }
.tiles dt { color: var(--soft); font-size: .85rem; }
.tiles dd { margin: 0; font-size: 1.3rem; font-variant-numeric: tabular-nums; }
table { border-collapse: collapse; margin: .6rem 0; width: 100%; }
caption { text-align: left; color: var(--soft); font-size: .85rem; padding-bottom: .2rem; }
th, td { text-align: left; vertical-align: top; padding: .2rem .9rem .2rem 0;
  border-bottom: 1px solid var(--line); font-weight: normal; overflow-wrap: break-word; }
thead th { color: var(--soft); font-size: .85rem; }
.wide { overflow-x: auto; }
#unserved th, #unserved td:not(:last-child) { white-space: nowrap; }
#unserved td:last-child { min-width: 16rem; }
th.n, td.n { text-align: right; font-variant-numeric: tabular-nums; white-space: nowrap; }
tr > :last-child { padding-right: 0; }
svg { display: block; width: 100%; height: auto; margin: .4rem 0; }
svg text { fill: var(--soft); font-size: 12px; }
svg text.name { fill: var(--text); }
.grid { stroke: var(--line); stroke-width: 1; }
.curve { fill: none; stroke-width: 1.8; stroke-linejoin: round; }
.mark { stroke: var(--text); stroke-width: 1.5; stroke-dasharray: 4 3; }
svg text.marked { fill: var(--text); }
.legend { list-style: none; display: flex; flex-wrap: wrap; gap: .2rem 1.2rem; margin: .2rem 0;
  padding: 0; font-size: .9rem; }
.legend svg { display: inline-block; width: .8em; height: .8em; margin: 0 .4em 0 0; }
.taken, .cwp { fill: var(--taken); stroke: var(--taken); }
.returned { fill: var(--returned); stroke: var(--returned); }
.undelivered { fill: var(--undelivered); stroke: var(--undelivered); }
.transmitted { fill: var(--transmitted); stroke: var(--transmitted); }
.wapi { fill: var(--wapi); stroke: var(--wapi); }
.received { fill: var(--soft); stroke: var(--soft); }
rect { stroke: none; }
path.curve { fill: none; }
.area { stroke-width: .8; }
#instances { width: auto; min-width: 24rem; }
@media print { :root { color-scheme: light; } body { max-width: none; padding: 0; font-size: 11px; }
  section, svg, tr { break-inside: avoid; } * { print-color-adjust: exact; } }
)";

}  // namespace

std::string Escaped(std::string_view text) {
    std::string escaped;
    while (!text.empty()) {
        const size_t length = CharacterLength(text);
        const auto first = static_cast<unsigned char>(text[0]);
        if (length == 0 || (length == 1 && (first < ' ' || first == 0x7F))) {
            escaped += first == '\n' || first == '\t' ? " " : kReplacement;
        } else if (length > 1 || std::string_view("&<>\"'").find(text[0]) == text.npos) {
            escaped += text.substr(0, length);
        } else {
            escaped += "&#" + std::to_string(first) + ";";
        }
        text.remove_prefix(std::max<size_t>(length, 1));
    }
    return escaped;
}

std::string Grouped(uint64_t number) {
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, kNarrowSpace);
    }
    return text;
}

std::string Decimal(double number, int digits) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, std::clamp(number, 0.0, 1e18));
    const std::string_view all = text;
    const std::string whole(all.substr(0, all.find('.')));
    return Grouped(std::stoull(whole)) + std::string(all.substr(whole.size()));
}

std::string Table(std::string_view id, std::string_view caption, const std::vector<Row> &rows) {
    const auto cell = [](const char *tag, const char *scope, bool number, const std::string &html) {
        return std::string("<")
            .append(tag)
            .append(scope)
            .append(number ? " class=\"n\">" : ">")
            .append(html)
            .append("</")
            .append(tag)
            .append(">");
    };
    std::string table = "<div class=\"wide\"><table id=\"" + Escaped(id) + "\"><caption>" +
                        Escaped(caption) + "</caption>\n<thead><tr>";
    const Row none;
    const Row &first = rows.size() > 1 ? rows[1] : none;
    for (size_t i = 0; i < rows.front().size(); ++i) {
        table +=
            cell("th", " scope=\"col\"", i < first.size() && first[i].number, rows.front()[i].html);
    }
    table += "</tr></thead>\n<tbody>\n";
    for (size_t row = 1; row < rows.size(); ++row) {
        table += "<tr>";
        for (const Cell &one : rows[row]) {
            const bool isFirst = &one == &rows[row].front();
            table +=
                cell(isFirst ? "th" : "td", isFirst ? " scope=\"row\"" : "", one.number, one.html);
        }
        table += "</tr>\n";
    }
    return table + "</tbody></table></div>\n";
}

std::string Legend(const std::vector<Series> &series) {
    std::string list = "<ul class=\"legend\">";
    for (const Series &one : series) {
        list += "<li><svg viewBox=\"0 0 10 10\" aria-hidden=\"true\"><rect class=\"" + one.style +
                "\" width=\"10\" height=\"10\" rx=\"2\"/></svg>" + Escaped(one.name) + "</li>";
    }
    return list + "</ul>\n";
}

std::string Page(std::string_view title, std::string_view body) {
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\"/>\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"/>\n"
           "<meta name=\"color-scheme\" content=\"light dark\"/>\n<title>" +
           Escaped(title) + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n" +
           std::string(body) + "</body>\n</html>\n";
}

}  // namespace kes_engine::html
