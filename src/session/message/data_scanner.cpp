#include "session/message/data_scanner.h"

#include <cstring>

// What stands in front of `at`, when state_ stands in front of `first`.
DataScanner::State DataScanner::StateAt(const char* first, const char* at) const {
    if (at == first) return state_;
    switch (at[-1]) {
        case '\n': {
            const bool cr = at - first > 1 ? at[-2] == '\r' : state_ == State::kCr;
            return cr ? State::kCrLf : State::kLf;
        }
        case '\r':
            return State::kCr;
        case '\0':
            return State::kNul;
        default:
            return State::kText;
    }
}

std::size_t DataScanner::Feed(std::string_view bytes, std::string& text) {
    const char* const end = bytes.data() + bytes.size();
    const char* at = bytes.data();
    while (at < end) {
        if (state_ >= State::kDot) {
            if (pipelining_ && state_ == State::kDotCrLf) break;
            if (TakeBehindDot(*at, text)) ++at;
            continue;
        }
        // Dot by dot: the system's search for one byte is many times faster than a look at each.
        const char* const first = at;
        const char* dot = nullptr;
        State front = State::kText;
        while (front == State::kText) {
            dot =
                static_cast<const char*>(std::memchr(at, '.', static_cast<std::size_t>(end - at)));
            if (dot == nullptr) break;
            front = StateAt(first, dot);
            at = dot + 1;
        }
        const char* const stop = dot == nullptr ? end : dot;
        text.append(first, stop);
        state_ = StateAt(first, stop);
        if (dot == nullptr) return bytes.size();
        inFront_ = front;
        state_ = State::kDot;
    }
    return static_cast<std::size_t>(at - bytes.data());
}

// What the byte behind a held dot says of it. False: the byte is yet to be looked at.
bool DataScanner::TakeBehindDot(char byte, std::string& text) {
    const bool wholeLine = inFront_ == State::kStart || inFront_ == State::kCrLf;
    switch (state_) {
        case State::kDot:
            if (byte == '\r') {
                state_ = State::kDotCr;
                return true;
            }
            if (byte == '\n' && !strict_ && (wholeLine || inFront_ == State::kLf)) {
                state_ = State::kDotLf;
                return true;
            }
            if (byte == '\n' || byte == '\0') text.push_back('.');
            text.push_back('.');
            text.push_back(byte);
            state_ = byte == '\n' ? State::kLf : byte == '\0' ? State::kNul : State::kText;
            return true;
        case State::kDotCr:
            if (byte == '\n' && wholeLine) {
                state_ = State::kDotCrLf;
                return true;
            }
            text.append("..\r");
            state_ = State::kCr;
            return false;
        case State::kDotLf:
            text.append("..\n");
            state_ = State::kLf;
            return false;
        default:
            text.append("..\r\n");
            state_ = State::kCrLf;
            return false;
    }
}

DataScanner::End DataScanner::Ending() const {
    if (state_ == State::kDotCrLf) return End::kNow;
    return state_ == State::kDotLf ? End::kIfSilent : End::kNone;
}

std::size_t DataScanner::HeldBack() const {
    switch (state_) {
        case State::kDot:
            return 1;
        case State::kDotCr:
        case State::kDotLf:
            return 2;
        case State::kDotCrLf:
            return 3;
        default:
            return 0;
    }
}
