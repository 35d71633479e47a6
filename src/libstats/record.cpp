// The record of one event.
#include <new>
#include <optional>
#include <string>

#include "libstats/libstats.h"

namespace {

using Text = std::optional<std::string>;

const char* Get(const Text& field) { return field ? field->c_str() : nullptr; }

// No exception leaves a setter: its callers are in the middle of a mail session. The text may be
// the field's own.
const char* Store(Text& field, const char* text) {
    try {
        field = text != nullptr ? Text(text) : std::nullopt;
    } catch (const std::bad_alloc&) {
        field.reset();
    }
    return Get(field);
}

void Append(Text& field, const char* item) {
    if (item == nullptr) return;
    try {
        field = field ? *field + ';' + item : std::string(item);
    } catch (const std::bad_alloc&) {  // the list stays as it was
    }
}

}  // namespace

class CStatsRequestCore final : public libstats::CStatsRequest {
  public:
    void SetStamp(std::int64_t stamp) override { stamp_ = stamp; }
    const char* SetSourceHost(const char* host) override { return Store(sourceHost_, host); }
    const char* SetTargetHost(const char* host) override { return Store(targetHost_, host); }
    void SetAgentId(std::uint32_t agent) override { agentId_ = agent; }
    void SetServiceId(int service) override { serviceId_ = service; }
    const char* SetSender(const char* sender) override { return Store(sender_, sender); }
    void AddRecipient(const char* recipient) override { Append(recipients_, recipient); }
    void AddDetail(const char* detail) override { Append(details_, detail); }
    const char* SetLabel(const char* label) override { return Store(label_, label); }
    void SetCount(int count) override { count_ = count; }
    const char* SetTextA(const char* text) override { return Store(textA_, text); }
    const char* SetTextB(const char* text) override { return Store(textB_, text); }
    void SetEventCode(int code) override { eventCode_ = code; }
    void SetValue(int value) override { value_ = value; }
    void SetObjectStatus(int status) override { objectStatus_ = status; }
    void SetActionMask(int mask) override { actionMask_ = mask; }
    void ClearDetails() override { details_.reset(); }
    void ClearRecipients() override { recipients_.reset(); }

    std::int64_t GetStamp() const override { return stamp_; }
    const char* GetSourceHost() const override { return Get(sourceHost_); }
    const char* GetTargetHost() const override { return Get(targetHost_); }
    std::uint32_t GetAgentId() const override { return agentId_; }
    int GetServiceId() const override { return serviceId_; }
    const char* GetSender() const override { return Get(sender_); }
    const char* GetRecipients() const override { return Get(recipients_); }
    const char* GetDetails() const override { return Get(details_); }
    const char* GetLabel() const override { return Get(label_); }
    int GetCount() const override { return count_; }
    const char* GetTextA() const override { return Get(textA_); }
    const char* GetTextB() const override { return Get(textB_); }
    int GetEventCode() const override { return eventCode_; }
    int GetValue() const override { return value_; }
    int GetObjectStatus() const override { return objectStatus_; }
    int GetActionMask() const override { return actionMask_; }

  private:
    Text sourceHost_;
    Text targetHost_;
    std::uint32_t agentId_ = 0;
    int serviceId_ = 0;
    Text sender_;
    Text recipients_;
    Text label_;
    int count_ = 0;
    Text textA_;
    Text textB_;
    int eventCode_ = 0;
    int value_ = 0;
    int actionMask_ = 0;
    int objectStatus_ = 0;
    Text details_;
    std::int64_t stamp_ = 0;
};

libstats::CStatsRequest* CreateStatsRequest() { return new (std::nothrow) CStatsRequestCore; }

void FreeStatsRequest(libstats::CStatsRequest* record) {
    delete static_cast<CStatsRequestCore*>(record);
}
