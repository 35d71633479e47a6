#include "daemons/statd/store/writer.h"

#include <algorithm>
#include <functional>

#include "daemons/statd/store/text.h"
#include "libstats/codes.h"
#include "text/day.h"
#include "text/printable.h"

namespace stats {
namespace {

std::string InsertSql() {
    std::string columns = "INSERT INTO records(received";
    std::string values = ") VALUES(?";
    const auto add = [&](const char* column) {
        columns += std::string(", ") + column;
        values += ", ?";
    };
    for (const TextField& field : kTextFields) add(field.column);
    for (const NumberField& field : kNumberFields) add(field.column);
    return columns + values + ")";
}

}  // namespace

Writer::Writer(Database& database, std::size_t namesADay)
    : database_(database),
      namesADay_(namesADay),
      insert_(database.Prepare(InsertSql())),
      addHour_(database.Prepare("INSERT INTO hours(hour, event, count, bytes) VALUES(?, ?, ?, ?)"
                                " ON CONFLICT(hour, event) DO UPDATE SET"
                                " count = count + excluded.count, bytes = bytes + excluded.bytes")),
      addName_(database.Prepare(
          "INSERT INTO names(kind, day, name, event, count, bytes) VALUES(?, ?, ?, ?, ?, ?)"
          " ON CONFLICT(kind, day, name, event) DO UPDATE SET"
          " count = count + excluded.count, bytes = bytes + excluded.bytes")) {}

bool Writer::Write(std::span<const Record> records) {
    hours_.clear();
    names_.clear();
    Transaction transaction(database_, "BEGIN IMMEDIATE");
    if (!transaction.Good()) return false;
    for (const Record& record : records) {
        if (!Insert(record)) return false;
        Count(record);
    }
    return WriteCounts() && transaction.Commit();
}

bool Writer::Insert(const Record& record) {
    int index = 1;
    insert_.Bind(index++, record.received);
    const auto bind = [&](const auto& value) {
        if (value) {
            insert_.Bind(index++, *value);
        } else {
            insert_.BindNull(index++);
        }
    };
    for (const TextField& field : kTextFields) bind(record.*field.member);
    for (const NumberField& field : kNumberFields) bind(record.*field.member);
    return insert_.Run();
}

// One record is one event, whatever its count field says: the reporters leave that at 0.
void Writer::Count(const Record& record) {
    const std::int64_t event = record.eventCode.value_or(0);
    const bool verdict = StatGroup(event) < kStatVerdicts;
    const std::int64_t bytes = verdict ? std::max<std::int64_t>(record.value.value_or(0), 0) : 0;
    const std::int64_t day = DayOf(record.received);
    hours_[{HourOf(record.received), event}].Add(bytes);
    if (record.sourceHost.value_or(0) != 0)
        CountName(Kind::kPeer, day, Dotted(*record.sourceHost), event, bytes);
    if (record.sender) CountName(Kind::kSenderDomain, day, DomainOf(*record.sender), event, bytes);
    if (record.recipients) {
        for (std::string& domain : DomainsOf(*record.recipients, kDomainsARecord))
            CountName(Kind::kRecipientDomain, day, std::move(domain), event, bytes);
    }
    if (IsStatInfected(event) && record.label && !record.label->empty())
        CountName(Kind::kSignature, day, CleanText(*record.label, kNameLimit), event, bytes);
}

void Writer::CountName(Kind kind, std::int64_t day, std::string name, std::int64_t event,
                       std::int64_t bytes) {
    if (!Admit(kind, day, name)) name = kOtherName;
    names_[{static_cast<int>(kind), day, std::move(name), event}].Add(bytes);
}

bool Writer::Admit(Kind kind, std::int64_t day, const std::string& name) {
    Known& known = known_[static_cast<std::size_t>(kind) - 1];
    constexpr std::hash<std::string> kHash;
    if (known.day != day) {
        known.day = day;
        known.hashes.clear();
        Statement names =
            database_.Prepare("SELECT DISTINCT name FROM names WHERE kind = ? AND day = ?");
        names.Bind(1, static_cast<std::int64_t>(kind));
        names.Bind(2, day);
        while (names.Row()) known.hashes.insert(kHash(names.Text(0)));
    }
    const std::size_t hash = kHash(name);
    if (known.hashes.contains(hash)) return true;
    if (known.hashes.size() >= namesADay_) return false;
    known.hashes.insert(hash);
    return true;
}

bool Writer::WriteCounts() {
    for (const auto& [key, sum] : hours_) {
        addHour_.Bind(1, key.first);
        addHour_.Bind(2, key.second);
        addHour_.Bind(3, sum.count);
        addHour_.Bind(4, sum.bytes);
        if (!addHour_.Run()) return false;
    }
    for (const auto& [key, sum] : names_) {
        addName_.Bind(1, static_cast<std::int64_t>(std::get<0>(key)));
        addName_.Bind(2, std::get<1>(key));
        addName_.Bind(3, std::string_view(std::get<2>(key)));
        addName_.Bind(4, std::get<3>(key));
        addName_.Bind(5, sum.count);
        addName_.Bind(6, sum.bytes);
        if (!addName_.Run()) return false;
    }
    return true;
}

}  // namespace stats
