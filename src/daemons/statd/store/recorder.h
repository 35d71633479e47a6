// Takes records from the requests' threads and writes them on a thread of its own, a batch a
// transaction.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemons/statd/store/database.h"
#include "daemons/statd/store/record.h"
#include "daemons/statd/store/writer.h"

namespace stats {

// What waits to be written has an end: so many records, so many bytes.
inline constexpr std::size_t kQueueRecords = 20000;
inline constexpr std::size_t kQueueBytes = 32U << 20;

// What the page shows as it changes.
struct LiveNumbers {
    std::int64_t received = 0;    // records since the start
    std::int64_t lastMinute = 0;  // of these, in the last 60 seconds
    std::int64_t waiting = 0;     // not yet written
    std::int64_t lost = 0;        // could not be kept
    std::int64_t lastTime = 0;    // when the last one came, UTC seconds; 0: none yet
};

class Recorder {
  public:
    Recorder() = default;
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    ~Recorder() { Stop(); }

    // Opens the database and starts the thread. False on failure; `note` says why, or what else a
    // person should know.
    bool Start(const std::string& path, std::string& note);
    // Writes what waits and ends the thread. Nobody pushes any more.
    void Stop();

    // Any thread. While the queue is full the caller waits, up to 5 seconds; then, or at once while
    // the disk refuses, the record is lost and counted. False if it is lost.
    bool Push(Record&& record);
    // A request that was no record.
    void CountUnreadable();

    // Days of records that are kept; 0, as without a call: all. Acts at once. Any thread.
    void SetKeepDays(int days);
    LiveNumbers Live();
    // The newest trouble with writing that nobody has taken yet, else empty. Any thread.
    std::string TakeTrouble();

  private:
    static constexpr std::size_t kSeconds = 60;

    void Work();
    // One batch from the queue to the database.
    void WriteBatch(std::unique_lock<std::mutex>& lock);
    void Failed(std::unique_lock<std::mutex>& lock, const std::string& why);
    // One step of the upkeep. True if there is more to do.
    bool Keep(int days);
    bool HasRoom(std::size_t size) const {
        return queue_.size() + batch_.size() < kQueueRecords && bytes_ + size <= kQueueBytes;
    }
    void Tick(std::int64_t now);

    std::unique_ptr<Database> database_;  // the thread's, and Start's
    std::unique_ptr<Writer> writer_;
    std::thread thread_;

    std::mutex mutex_;  // guards all below
    std::condition_variable filled_;
    std::condition_variable emptied_;
    std::deque<Record> queue_;
    std::vector<Record> batch_;  // being written; changed under the lock, read by the thread
    std::size_t bytes_ = 0;      // of queue_ and batch_
    int keepDays_ = 0;
    bool keepNow_ = false;  // the days have changed
    bool stopping_ = false;
    bool failing_ = false;
    std::string trouble_;
    LiveNumbers live_;
    std::array<std::int64_t, kSeconds> perSecond_{};  // by second modulo kSeconds
    std::int64_t second_ = 0;                         // the newest that perSecond_ knows
};

}  // namespace stats
