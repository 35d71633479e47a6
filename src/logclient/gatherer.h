// Inside logclient/: lines that are sent together. Whoever has one appends it to a text under a
// lock, and no more; a thread of the gatherer's own hands the text on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class LineGatherer {
  public:
    using Send = void (*)(const std::string& lines, std::uint32_t count);
    using Lose = void (*)(std::uint32_t count);

    // The first line waits so long for others, unless there are so many bytes before. What is sent
    // at once has no more than these and one line.
    static constexpr std::chrono::milliseconds kLongestWait{200};
    static constexpr std::size_t kEnough = 32768;
    // More isn't held: the thread gets no time, or no memory.
    static constexpr std::size_t kMostBytes = std::size_t{1} << 20;

    // Both run on the gatherer's thread or on that of a caller, with no lock held.
    LineGatherer(Send send, Lose lose) : send_(send), lose_(lose) {}
    LineGatherer(const LineGatherer&) = delete;
    LineGatherer& operator=(const LineGatherer&) = delete;
    // Closed before.
    ~LineGatherer() = default;

    // It is new, or has been closed. No thread runs before the first line.
    void Open();
    // Any thread, at any time. A line that comes while it isn't open is dropped.
    void Add(std::string_view line);
    // Sends what there is, and ends the thread.
    void Close();

  private:
    struct Batch {
        std::string lines;
        std::uint32_t count = 0;
    };
    // Whether the line is held, and the thread runs.
    bool Take(std::string_view line);
    void Work();
    void SendAll(std::vector<Batch>& batches);

    const Send send_;
    const Lose lose_;
    std::mutex mutex_;  // guards all below
    std::condition_variable changed_;
    Batch gathered_;           // what is gathered
    std::vector<Batch> full_;  // in front of it
    std::size_t bytes_ = 0;    // of all of them
    bool open_ = false;
    std::thread thread_;
};
