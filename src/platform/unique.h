// The owner of a value that has to be given back to the system.
#pragma once

namespace platform {

// Kind says what is owned: its Type, kNone where nothing is, Owned(value), and Close(value) for the
// end of its life.
template <class Kind>
class Unique {
  public:
    using Type = typename Kind::Type;

    Unique() = default;
    explicit Unique(Type value) : value_(value) {}
    Unique(Unique&& other) noexcept : value_(other.Release()) {}
    Unique& operator=(Unique&& other) noexcept {
        Reset(other.Release());
        return *this;
    }
    ~Unique() { Reset(); }

    Type Get() const { return value_; }
    explicit operator bool() const { return Kind::Owned(value_); }
    Type Release() {
        const Type value = value_;
        value_ = Kind::kNone;
        return value;
    }
    void Reset(Type value = Kind::kNone) {
        if (Kind::Owned(value_)) Kind::Close(value_);
        value_ = value;
    }

  private:
    Type value_ = Kind::kNone;
};

}  // namespace platform
