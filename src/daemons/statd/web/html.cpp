#include "daemons/statd/web/html.h"

#include <cstdlib>

#include "daemons/statd/report/format.h"
#include "daemons/statd/store/text.h"
#include "text/day.h"

namespace stats {
namespace {

constexpr char kStyle[] = R"css(
:root { color-scheme: light dark; --back: #f6f7f9; --card: #fff; --ink: #1b1f26; --dim: #5b6472;
  --line: #d9dde3; --s0: #2a78d6; --s1: #d0353b; --s2: #d97706; --s3: #8250df; --s4: #6b7280;
  --s5: #84602a; --s6: #0f766e; --s7: #a16207; --s8: #7f1d1d; --s9: #1e3a8a; --s10: #9d174d;
  --s11: #c026d3; --s12: #15803d; --s13: #65a30d; --s14: #0891b2; --s15: #be185d;
  --s16: #4d7c0f; --s17: #0369a1; }
@media (prefers-color-scheme: dark) {
  :root { --back: #14171c; --card: #1d2129; --ink: #e7eaf0; --dim: #a3acba; --line: #363c47;
    --s0: #5b9df0; --s1: #f0686d; --s2: #f2a33c; --s3: #b08cff; --s4: #9aa3b2; --s5: #c9a06a;
    --s6: #3fbfae; --s7: #d9b64a; --s8: #f9a8a8; --s9: #93a8f5; --s10: #e879a6; --s11: #e48af0;
    --s12: #5fcf83; --s13: #b7dd5a; --s14: #4fd0e4; --s15: #f07ab0;
    --s16: #a3c957; --s17: #58b7e8; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--back); color: var(--ink);
  font: 16px/1.45 system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif; }
main { max-width: 1280px; margin: 0 auto; padding: 12px; }
h1 { font-size: 1.5rem; margin: 8px 0 0; }
h2 { font-size: 1.15rem; margin: 0 0 8px; }
h3 { font-size: .95rem; margin: 0 0 4px; font-weight: 600; }
p { margin: 4px 0 12px; }
.dim { color: var(--dim); font-size: .875rem; }
section { background: var(--card); border: 1px solid var(--line); border-radius: 8px;
  padding: 12px; margin: 0 0 12px; }
.plots, .lists { display: grid; gap: 16px;
  grid-template-columns: repeat(auto-fit, minmax(min(100%, 300px), 1fr)); }
.lists section { margin: 0; min-width: 0; }
.lists { margin: 0 0 12px; gap: 12px;
  grid-template-columns: repeat(auto-fit, minmax(min(100%, 420px), 1fr)); }
figure { margin: 0; min-width: 0; }
svg.plot { display: block; width: 100%; height: auto; }
svg.plot text { fill: var(--dim); font-size: 11px; }
svg.plot line { stroke: var(--line); }
svg.plot line.base { stroke: var(--dim); }
.legend { display: flex; flex-wrap: wrap; gap: 4px 16px; list-style: none; margin: 10px 0 0;
  padding: 0; font-size: .875rem; }
.legend svg { width: 12px; height: 12px; vertical-align: -1px; margin-right: 6px; }
.s0 { fill: var(--s0); } .s1 { fill: var(--s1); } .s2 { fill: var(--s2); } .s3 { fill: var(--s3); }
.s4 { fill: var(--s4); } .s5 { fill: var(--s5); } .s6 { fill: var(--s6); } .s7 { fill: var(--s7); }
.s8 { fill: var(--s8); } .s9 { fill: var(--s9); } .s10 { fill: var(--s10); }
.s11 { fill: var(--s11); } .s12 { fill: var(--s12); } .s13 { fill: var(--s13); }
.s14 { fill: var(--s14); } .s15 { fill: var(--s15); } .s16 { fill: var(--s16); }
.s17 { fill: var(--s17); }
.scroll { overflow-x: auto; }
.glance .scroll { max-width: 720px; }
table { border-collapse: collapse; width: 100%; font-size: .9rem; }
th, td { padding: 4px 8px; border-bottom: 1px solid var(--line); text-align: right;
  font-variant-numeric: tabular-nums; vertical-align: top; }
th { font-weight: 600; color: var(--dim); white-space: nowrap; }
tbody th { color: var(--ink); font-weight: 400; white-space: normal; }
th:first-child { text-align: left; padding-left: 0; overflow-wrap: anywhere; }
.report th:first-child { min-width: 9rem; position: sticky; left: 0; background: var(--card); }
tr:last-child > * { border-bottom: 0; }
td:last-child, th:last-child { padding-right: 0; }
dl { display: grid; grid-template-columns: repeat(auto-fit, minmax(130px, 1fr)); gap: 8px 16px;
  margin: 0; }
dt { color: var(--dim); font-size: .875rem; }
dd { margin: 0; font-size: 1.15rem; font-variant-numeric: tabular-nums; }
dd.time { font-size: .95rem; padding-top: 3px; }
form { display: flex; flex-wrap: wrap; gap: 8px 12px; align-items: end; }
label { font-size: .875rem; color: var(--dim); display: grid; gap: 2px; }
select, button { font: inherit; font-size: .95rem; color: inherit; background: var(--back);
  border: 1px solid var(--line); border-radius: 6px; padding: 6px 10px; }
input { font: inherit; font-size: .95rem; color: inherit; background: var(--back);
  border: 1px solid var(--line); border-radius: 6px; padding: 6px 10px; width: min(70vw, 26rem); }
a { color: var(--s17); }
:focus-visible { outline: 2px solid var(--s0); outline-offset: 2px; }
summary { cursor: pointer; color: var(--dim); font-size: .875rem; padding: 4px 0; }
.state { border-left-width: 6px; } .state h2 { margin: 0; } .state p { margin: 2px 0 0; }
.good { border-left-color: var(--s16); } .bad { border-left-color: var(--s1); }
dl.story { grid-template-columns: repeat(auto-fit, minmax(min(100%, 200px), 1fr)); }
dl.story dd { font-size: .95rem; overflow-wrap: anywhere; }
pre { margin: 0; white-space: pre-wrap; overflow-wrap: anywhere; font-size: .875rem; }
.empty { text-align: center; padding: 48px 12px; }
@media (max-width: 480px) { main { padding: 8px; } section { padding: 10px; }
  table { font-size: .8125rem; } th, td { padding: 4px; } thead th { font-size: .7rem; }
  th:first-child { min-width: 5.6rem; } .glance th:first-child { min-width: 5rem; }
  .report th:first-child { min-width: 6rem; } }
)css";

bool IsNumber(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

std::string Row(const std::vector<std::string>& cells) {
    std::string out = "<tr><th scope=\"row\">" + EscapeHtml(cells[0]) + "</th>";
    for (std::size_t i = 1; i < cells.size(); ++i) {
        const std::string& cell = cells[i];
        out += "<td>" +
               (IsNumber(cell) ? Grouped(std::strtoll(cell.c_str(), nullptr, 10), "\u202F")
                               : EscapeHtml(cell)) +
               "</td>";
    }
    return out + "</tr>\n";
}

}  // namespace

std::string HtmlPage(const std::string& title, const std::string& nonce, const std::string& body,
                     const std::string& script) {
    std::string out =
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" +
        EscapeHtml(title) + "</title>\n<style nonce=\"" + nonce + "\">" + kStyle +
        "</style>\n</head>\n<body>\n<main>\n" + body + "</main>\n";
    if (!script.empty()) out += "<script nonce=\"" + nonce + "\">" + script + "</script>\n";
    return out + "</body>\n</html>\n";
}

std::string HtmlTable(const Table& table) {
    if (table.rows.empty()) return "<p class=\"dim\">None in this period.</p>\n";
    std::string out = "<div class=\"scroll\" tabindex=\"0\"><table>\n<thead><tr>";
    for (const std::string& heading : table.headings)
        out += "<th scope=\"col\">" + EscapeHtml(heading) + "</th>";
    out += "</tr></thead>\n<tbody>\n";
    for (const auto& row : table.rows) out += Row(row);
    return out + "</tbody>\n</table></div>\n";
}

std::string FormatHtml(const Report& report, const std::string& nonce) {
    std::string body = "<h1>Vantrel mail statistics</h1>\n<p class=\"dim\">" + PeriodText(report) +
                       " (UTC), made " + FormatTime(report.made) + "</p>\n";
    if (report.totals.Total() == 0) {
        body += "<section class=\"empty\">No records in this period.</section>\n";
    } else {
        for (const Table& table : MakeTables(report))
            body += "<section class=\"report\"><h2>" + EscapeHtml(table.title) + "</h2>\n" +
                    HtmlTable(table) + "</section>\n";
    }
    return HtmlPage("Mail statistics " + PeriodText(report), nonce, body, "");
}

}  // namespace stats
