// The record of one event.
#include <cstring>
#include <memory>
#include <new>

#include "libstats/libstats.h"

namespace {

using Text = std::unique_ptr<char[]>;

// No exception leaves a setter: its callers are in the middle of a mail session.
Text Allocate(std::size_t size) { return Text(new (std::nothrow) char[size]); }

const char* Store(Text& field, const char* text) {
    Text copy;
    if (text != nullptr) {
        const std::size_t size = std::strlen(text) + 1;
        copy = Allocate(size);
        if (copy != nullptr) std::memcpy(copy.get(), text, size);
    }
    field = std::move(copy);  // only now: the text may be the field's own
    return field.get();
}

void Append(Text& field, const char* item) {
    if (item == nullptr) return;
    if (field == nullptr) {
        Store(field, item);
        return;
    }
    const std::size_t old = std::strlen(field.get());
    const std::size_t added = std::strlen(item);
    Text grown = Allocate(old + added + 2);
    if (grown == nullptr) return;
    std::memcpy(grown.get(), field.get(), old);
    grown[old] = ';';
    std::memcpy(grown.get() + old + 1, item, added + 1);
    field = std::move(grown);
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
    const char* GetSourceHost() const override { return sourceHost_.get(); }
    const char* GetTargetHost() const override { return targetHost_.get(); }
    std::uint32_t GetAgentId() const override { return agentId_; }
    int GetServiceId() const override { return serviceId_; }
    const char* GetSender() const override { return sender_.get(); }
    const char* GetRecipients() const override { return recipients_.get(); }
    const char* GetDetails() const override { return details_.get(); }
    const char* GetLabel() const override { return label_.get(); }
    int GetCount() const override { return count_; }
    const char* GetTextA() const override { return textA_.get(); }
    const char* GetTextB() const override { return textB_.get(); }
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
