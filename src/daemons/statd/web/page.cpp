#include "daemons/statd/web/page.h"

#include "daemons/statd/report/table.h"
#include "daemons/statd/store/text.h"
#include "daemons/statd/web/html.h"
#include "daemons/statd/web/machines.h"
#include "daemons/statd/web/plot.h"
#include "daemons/statd/web/search.h"
#include "metrics/snapshot.h"
#include "text/day.h"

namespace stats {
namespace {

constexpr std::int64_t kPageNames = 10;
constexpr std::int64_t kHoursADay = 24;

// Asks /live every 5 s. The origin is spelled out because a page's own address may hold a password,
// which fetch refuses.
constexpr char kScript[] = R"js(
"use strict";
(function () {
  var ids = ["received", "last_minute", "waiting", "lost", "last_time"];
  var state = document.getElementById("live_state");
  function show(numbers) {
    ids.forEach(function (id) {
      var value = numbers[id];
      document.getElementById(id).textContent =
        typeof value === "number" ? String(value).replace(/\B(?=(\d{3})+$)/g, "\u202F") : value;
    });
    state.textContent = "Live, every 5 seconds.";
  }
  function ask() {
    fetch(location.origin + "/live", { cache: "no-store", credentials: "same-origin" })
      .then(function (reply) {
        if (!reply.ok) throw new Error(reply.status);
        return reply.json();
      })
      .then(show)
      .catch(function () { state.textContent = "The statistics daemon does not answer; trying again."; })
      .then(function () { setTimeout(ask, 5000); });
  }
  ask();
})();
)js";

struct LiveField {
    const char* id;
    const char* label;
    std::int64_t LiveNumbers::*member;
};
constexpr LiveField kLiveFields[] = {
    {"last_minute", "Records in the last minute", &LiveNumbers::lastMinute},
    {"received", "Records since the start", &LiveNumbers::received},
    {"waiting", "Waiting to be written", &LiveNumbers::waiting},
    {"lost", "Lost", &LiveNumbers::lost},
};

std::string LastTime(const LiveNumbers& live) {
    return live.lastTime == 0 ? "none yet" : FormatTime(live.lastTime);
}

// Whether mail is flowing, in the first line that a person reads.
std::string State() {
    std::string complaints = MailComplaints();
    std::string out = "<section class=\"state ";
    if (complaints.empty()) {
        out += "good\"><h2>Mail is flowing</h2>\n";
    } else {
        complaints.pop_back();
        for (std::size_t at = 0; (at = complaints.find('\n', at)) != std::string::npos;)
            complaints.replace(at, 1, "; ");
        out += "bad\"><h2>Mail is not flowing</h2>\n<p>" + EscapeHtml(complaints) + "</p>\n";
    }
    const auto proxy = metrics::Read(metrics::Program::kProxy);
    if (!proxy || !proxy->running) return out + "</section>\n";
    std::int64_t sessions = 0;
    for (std::size_t i = 0; i < proxy->Places(metrics::Metric::kSessionsActive); ++i)
        sessions += proxy->Gauge(metrics::Metric::kSessionsActive, i);
    return out + "<p class=\"dim\">Proxy " + EscapeHtml(proxy->version) + " since " +
           FormatTime(proxy->started) + " UTC; sessions now: " + Grouped(sessions, "\u202F") +
           "</p></section>\n";
}

std::string LiveSection(const LiveNumbers& live) {
    std::string out = "<section><h2>Now</h2>\n<dl>\n";
    for (const LiveField& field : kLiveFields)
        out += std::string("<div><dt>") + field.label + "</dt><dd id=\"" + field.id + "\">" +
               Grouped(live.*field.member, "\u202F") + "</dd></div>\n";
    return out + "<div><dt>Last record (UTC)</dt><dd class=\"time\" id=\"last_time\">" +
           LastTime(live) +
           "</dd></div>\n</dl>\n<p class=\"dim\" id=\"live_state\">As of this "
           "page.</p></section>\n";
}

// Hours up to the present one.
struct Span {
    const char* title;
    std::size_t hours;
};
constexpr Span kSpans[] = {{"Last 24 hours", 24}, {"Last 7 days", 168}, {"Last 30 days", 720}};

std::string Glance(const std::vector<Counts>& hours) {
    std::vector<Counts> sums;
    for (const Span& span : kSpans) {
        Counts& sum = sums.emplace_back();
        for (std::size_t i = hours.size() - span.hours; i < hours.size(); ++i) sum.Add(hours[i]);
    }
    Table table{"", {"Period", "24 hours", "7 days", "30 days"}, {}};
    const auto add = [&](const std::string& name, auto number) {
        auto& row = table.rows.emplace_back(1, name);
        for (const Counts& sum : sums) row.push_back(std::to_string(number(sum)));
    };
    add("Messages", [](const Counts& counts) { return counts.Messages(); });
    for (std::size_t group = 0; group < kStatGroups; ++group)
        add(StatGroupName(group), [&](const Counts& counts) { return counts.events[group]; });
    add("Megabytes", [](const Counts& counts) { return counts.Bytes() / 1000000; });
    return "<section class=\"glance\"><h2>At a glance</h2>\n" + HtmlTable(table) + "</section>\n";
}

// Bars of a day each up to today, from counts by the hour that end with the present hour.
std::vector<Counts> ByDay(const std::vector<Counts>& hours, std::int64_t nowHour,
                          std::size_t days) {
    std::vector<Counts> sums(days);
    const std::int64_t firstDay = nowHour / kHoursADay - static_cast<std::int64_t>(days) + 1;
    for (std::size_t i = 0; i < hours.size(); ++i) {
        const std::int64_t hour = nowHour - static_cast<std::int64_t>(hours.size() - 1 - i);
        const std::int64_t at = hour / kHoursADay - firstDay;
        if (at >= 0) sums[static_cast<std::size_t>(at)].Add(hours[i]);
    }
    return sums;
}

std::vector<PlotSeries> MakeSeries(const std::vector<Counts>& bars, std::size_t from,
                                   std::size_t to) {
    std::vector<PlotSeries> all;
    for (std::size_t group = from; group < to; ++group) {
        PlotSeries series{StatGroupName(group), static_cast<int>(group), {}};
        for (const Counts& counts : bars) series.values.push_back(counts.events[group]);
        all.push_back(std::move(series));
    }
    return all;
}

// One group of plots: groups of events from..to over a day, a week and a month.
std::string Plots(const char* title, const char* yTitle, const std::vector<Counts>& hours,
                  std::int64_t nowHour, std::size_t from, std::size_t to) {
    std::string out = std::string("<section><h2>") + title + "</h2>\n<div class=\"plots\">\n";
    const std::vector<Counts> day(hours.end() - kHoursADay, hours.end());
    Plot plot{kSpans[0].title, "hour (UTC)", yTitle, {}, MakeSeries(day, from, to)};
    for (std::int64_t hour = nowHour - kHoursADay + 1; hour <= nowHour; ++hour)
        plot.labels.push_back(std::to_string(hour % kHoursADay));
    out += SvgPlot(plot);
    for (const std::size_t days : {std::size_t{7}, std::size_t{30}}) {
        plot = {days == 7 ? kSpans[1].title : kSpans[2].title,
                "day (UTC)",
                yTitle,
                {},
                MakeSeries(ByDay(hours, nowHour, days), from, to)};
        const std::int64_t today = nowHour / kHoursADay;
        for (std::int64_t at = today - static_cast<std::int64_t>(days) + 1; at <= today; ++at)
            plot.labels.push_back(FormatDay(at).substr(5));
        out += SvgPlot(plot);
    }
    return out + "</div>\n" + PlotLegend(plot.series) + "</section>\n";
}

std::string Lists(const Report& report) {
    std::string out = "<div class=\"lists\">\n";
    for (const NameList& list : report.lists) {
        const bool signatures = list.kind == Kind::kSignature;
        Table table{"", {list.heading, "Messages", "Infected", "Filtered"}, {}};
        if (signatures) table.headings = {list.heading, "Messages"};
        for (const NamedCounts& named : list.rows) {
            const Counts& counts = named.counts;
            const std::int64_t filtered =
                counts.Total() - counts.Messages() - counts.events[kStatOtherGroup];
            table.rows.push_back({named.name, std::to_string(counts.Messages())});
            if (signatures) continue;
            table.rows.back().push_back(std::to_string(counts.Infected()));
            table.rows.back().push_back(std::to_string(filtered));
        }
        out += std::string("<section><h2>") + list.title + "</h2>\n<p class=\"dim\">" +
               kSpans[2].title + "</p>\n" + HtmlTable(table) + "</section>\n";
    }
    return out + "</div>\n";
}

constexpr char kReportForm[] = R"html(<section><h2>Report</h2>
<form method="post" action="/">
<input type="hidden" name="request_type" value="2">
<label>Period <select name="time_period"><option value="1">Today</option>
<option value="2">Last 7 days</option><option value="3" selected>Last 30 days</option></select></label>
<label>Format <select name="request_format"><option value="1">Page</option>
<option value="2">Text</option><option value="3">CSV</option></select></label>
<button type="submit">Get the report</button>
</form></section>
)html";

}  // namespace

std::optional<std::string> OverviewPage(ReportReader& reader, const LiveNumbers& live,
                                        std::int64_t now, const std::string& nonce) {
    const std::int64_t nowHour = HourOf(now);
    const std::int64_t today = DayOf(now);
    std::vector<Counts> hours;
    Report report;
    if (!reader.ReadHours(nowHour - 30 * kHoursADay + 1, nowHour, hours) ||
        !reader.Read(today - 29, today, kPageNames, report))
        return std::nullopt;
    std::string body = "<h1>Vantrel Statistics</h1>\n<p class=\"dim\">" + FormatTime(now) +
                       " UTC</p>\n" + State() + SearchForm("") + LiveSection(live);
    if (reader.Records() == 0) {
        body +=
            "<section class=\"empty\"><h2>No records yet</h2>\n<p class=\"dim\">They appear "
            "here as mail passes the proxy; load this page again then.</p></section>\n";
        return HtmlPage("Vantrel Statistics", nonce, body, kScript);
    }
    body += Glance(hours) +
            Plots("Messages by verdict", "messages", hours, nowHour, 0, kStatVerdicts) +
            Plots("Filtered by peer, sender and recipient", "events", hours, nowHour, kStatVerdicts,
                  kStatOtherGroup) +
            Lists(report) + kReportForm;
    return HtmlPage("Vantrel Statistics", nonce, body, kScript);
}

std::string LiveJson(const LiveNumbers& live) {
    std::string out = "{";
    for (const LiveField& field : kLiveFields)
        out += std::string("\"") + field.id + "\":" + std::to_string(live.*field.member) + ",";
    return out + "\"last_time\":\"" + LastTime(live) + "\"}\n";
}

}  // namespace stats
