#include "daemons/maild/rules.h"

#include <algorithm>
#include <set>
#include <span>

#include "daemons/maild/log.h"
#include "trelis/keys/settings.h"

namespace {

using maild::Action;

consteval trelis::Key OfAttachments(const char* name) { return {trelis::kAttachmentRuleKey, name}; }
consteval trelis::Key OfContent(const char* name) { return {trelis::kContentRuleKey, name}; }
consteval trelis::Key Limit(const char* name) { return {trelis::kMailDaemonKey, name}; }

// A name with none of its fields is what is left of a rule that was taken away key by key.
std::set<std::string> NamesOf(std::span<const trelis::Key> fields) {
    std::set<std::string> names;
    trelis::NameWalk walk(fields.front());
    for (std::string name; walk.Next(name);) {
        if (std::any_of(fields.begin(), fields.end(), [&name](const trelis::Key& field) {
                return trelis::ReadIfGiven(field, {name}).has_value();
            }))
            names.insert(name);
    }
    return names;
}
constexpr trelis::Key kAttachmentFields[] = {
    OfAttachments("FileName"), OfAttachments("DeclaredType"), OfAttachments("RealType"),
    OfAttachments("MinSize"),  OfAttachments("Action"),       OfAttachments("Text")};
constexpr trelis::Key kContentFields[] = {OfContent("Where"), OfContent("Pattern"),
                                          OfContent("Action"), OfContent("Text")};

void Warn(const std::string& name, const char* section, const std::string& what) {
    LogOnce({.kind = kEventWarning, .text = "the rule " + name + " on " + section + " " + what});
}

Action ReadAction(const trelis::Key& key, const std::string& name, const char* section) {
    const std::string word = trelis::ReadText(key, {name});
    if (const std::optional<Action> action = maild::ActionOf(word)) return *action;
    Warn(name, section, "has no such action, and puts off: " + word);
    return Action::kPutOff;
}

}  // namespace

maild::AttachmentRules LoadAttachmentRules() {
    maild::AttachmentRules read;
    for (const std::string& name : NamesOf(kAttachmentFields)) {
        maild::AttachmentRule rule;
        rule.name = name;
        rule.fileName = maild::NamePatterns(trelis::ReadText(OfAttachments("FileName"), {name}));
        rule.declaredType =
            maild::NamePatterns(trelis::ReadText(OfAttachments("DeclaredType"), {name}));
        rule.realType = maild::NamePatterns(trelis::ReadText(OfAttachments("RealType"), {name}));
        rule.minSize = trelis::ReadSize(OfAttachments("MinSize"), {name});
        rule.action = ReadAction(OfAttachments("Action"), name, "attachments");
        rule.text = trelis::ReadText(OfAttachments("Text"), {name});
        read.rules.push_back(std::move(rule));
    }
    read.archives.maxDepth = trelis::ReadInt(Limit("MaxArchiveDepth"));
    read.archives.maxEntries = trelis::ReadInt(Limit("MaxArchiveEntries"));
    read.archives.maxBytes =
        trelis::ReadSize(Limit("MaxArchiveBytes")).value_or(maild::ArchiveLimits().maxBytes);
    return read;
}

maild::ContentRules LoadContentRules() {
    maild::ContentRules read;
    for (const std::string& name : NamesOf(kContentFields)) {
        maild::ContentRule rule;
        rule.name = name;
        const std::string where = trelis::ReadText(OfContent("Where"), {name});
        const std::optional<maild::Places> places = maild::ParsePlaces(where);
        const std::string text = trelis::ReadText(OfContent("Pattern"), {name});
        std::string why;
        if (text.empty()) {
            why = "it is empty";
        } else {
            rule.pattern = maild::Pattern::Compile(text, why);
        }
        if (!places || rule.pattern == nullptr) {
            Warn(name, "content",
                 places ? "is left out, for its pattern: " + why
                        : "is left out, for Where: " + where);
            continue;
        }
        rule.places = *places;
        rule.action = ReadAction(OfContent("Action"), name, "content");
        rule.text = trelis::ReadText(OfContent("Text"), {name});
        read.rules.push_back(std::move(rule));
    }
    return read;
}
