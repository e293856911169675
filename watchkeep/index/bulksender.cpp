#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <random>
#include <thread>

#include "index/bulkclient.h"
#include "index/bulkresponse.h"
#include "index/indexer.h"
#include "index/spool.h"
#include "startup/logger.h"

namespace vistrel::watchkeep {

namespace {

using Clock = std::chrono::steady_clock;

// Batches beyond this much memory go to the spool at once instead of waiting in memory.
constexpr size_t kMemoryLimit = 64u << 20;
constexpr uint32_t kLongestBackOffMs = 8000;
// A batch's storage: its byte bound plus room for the record that crosses it.
constexpr size_t kBatchSlack = 64u << 10;
// Storage of sent batches kept for the next ones.
constexpr size_t kSpareBodies = 2;

struct Batch {
    uint64_t sequence = 0;
    std::string body;
    size_t documents = 0;
};

std::string random_run_id() {
    std::random_device device;
    uint64_t value = (uint64_t{device()} << 32) ^ device();
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

size_t count_documents(const std::string& body) {
    size_t lines = 0;
    for (char c : body) lines += c == '\n' ? 1 : 0;
    return lines / 2;
}

}  // namespace

class BulkSenderImpl {
  public:
    explicit BulkSenderImpl(const IndexSettings& settings)
        : settings_(settings),
          spool_(settings.spool_folder),
          client_(settings.bulk_url, settings.request_timeout_ms, abort_),
          next_sequence_(spool_.next_sequence()),
          run_id_(random_run_id()),
          thread_([this] { run(); }) {}

    ~BulkSenderImpl() {
        std::unique_lock lock(mutex_);
        bool pending = !finished_ || current_.documents > 0;
        lock.unlock();
        if (pending) finish(std::chrono::milliseconds(0));
    }

    void enqueue(std::string_view index, std::string_view document) {
        std::lock_guard lock(mutex_);
        std::string& body = current_.body;
        if (current_.documents == 0) {
            current_.sequence = next_sequence_++;
            // A batch fills the storage of one already sent, or storage made large enough at
            // once: growing it step by step would copy it over and over.
            if (body.capacity() < settings_.batch_bytes && !spare_bodies_.empty()) {
                body.swap(spare_bodies_.back());
                spare_bodies_.pop_back();
            }
            body.reserve(std::min(settings_.batch_bytes + kBatchSlack, kMemoryLimit));
        }
        // The id makes a resent record (after an answer that never came) replace itself.
        char id[24];
        char* id_end = std::to_chars(id, id + sizeof id, next_id_++).ptr;
        body += R"({"index":{"_index":")";
        body += index;
        body += R"(","_id":")";
        body += run_id_;
        body += '-';
        body.append(id, static_cast<size_t>(id_end - id));
        body += "\"}}\n";
        body += document;
        body += '\n';
        if (++current_.documents >= settings_.batch_documents ||
            body.size() >= settings_.batch_bytes) {
            seal();
            wake_.notify_all();
        }
    }

    bool finish(std::chrono::milliseconds budget) {
        std::unique_lock lock(mutex_);
        seal();
        wake_.notify_all();
        // A second finish has no sender thread left: what came since goes to disk.
        if (finished_) budget = std::chrono::milliseconds(0);
        // An endpoint that was down gets one more try at once; if it still fails, what waits
        // stays on disk and the finish does not spend its whole budget.
        finishing_ = true;
        failed_while_finishing_ = false;
        next_probe_ = Clock::now();
        wake_.notify_all();
        idle_.wait_until(lock, Clock::now() + budget, [this] {
            return ready_.empty() && !busy_ &&
                   (spool_.empty() || (down_ && failed_while_finishing_));
        });
        stop_ = true;
        abort_ = true;
        wake_.notify_all();
        lock.unlock();
        if (thread_.joinable()) thread_.join();
        lock.lock();
        for (Batch& batch : ready_) {
            if (spool_.store(batch.sequence, batch.body)) {
                statistics_.documents_spooled += batch.documents;
            } else {
                statistics_.documents_lost += batch.documents;
                LOG_ERROR(
                    "%zu records lost: Elasticsearch at %s did not take them and the spool "
                    "folder %s cannot hold them",
                    batch.documents, settings_.bulk_url.c_str(), spool_.folder().c_str());
            }
        }
        ready_.clear();
        ready_bytes_ = 0;
        finished_ = true;
        if (!spool_.empty()) {
            LOG_NORMAL("%zu bulk requests wait in %s for the next run", spool_.files(),
                       spool_.folder().c_str());
        }
        return statistics_.documents_lost == 0;
    }

    BulkStatistics statistics() const {
        std::lock_guard lock(mutex_);
        return statistics_;
    }

  private:
    enum class Delivery { done, unreachable };

    // Moves the batch being filled to the send queue, or to disk when memory is taken.
    // Called locked.
    void seal() {
        if (current_.documents == 0) return;
        Batch batch = std::move(current_);
        current_ = Batch{};
        if (ready_bytes_ + batch.body.size() > kMemoryLimit &&
            spool_.store(batch.sequence, batch.body)) {
            statistics_.documents_spooled += batch.documents;
            return;
        }
        ready_bytes_ += batch.body.size();
        ready_.push_back(std::move(batch));
    }

    void run() {
        std::unique_lock lock(mutex_);
        while (!stop_) {
            if (down_) {
                // Nothing answers: what waits in memory goes to disk, then a probe later.
                while (!ready_.empty() &&
                       spool_.store(ready_.front().sequence, ready_.front().body)) {
                    statistics_.documents_spooled += ready_.front().documents;
                    ready_bytes_ -= ready_.front().body.size();
                    ready_.pop_front();
                }
                idle_.notify_all();
                if (Clock::now() < next_probe_) {
                    wake_.wait_until(lock, next_probe_);
                    continue;
                }
            }
            bool from_spool =
                !spool_.empty() && (ready_.empty() || spool_.oldest() < ready_.front().sequence);
            if (!from_spool && ready_.empty()) {
                idle_.notify_all();
                wake_.wait(lock);
                continue;
            }
            busy_ = true;
            Delivery result = from_spool ? send_spooled(lock) : send_ready(lock);
            if (result == Delivery::unreachable) {
                if (!down_ && !stop_) {
                    LOG_WARNING(
                        "Elasticsearch at %s does not take records; they wait in %s "
                        "and are sent in order when it does",
                        settings_.bulk_url.c_str(), spool_.folder().c_str());
                }
                down_ = true;
                failed_while_finishing_ = finishing_;
                next_probe_ = Clock::now() + std::chrono::milliseconds(settings_.probe_interval_ms);
            } else if (down_) {
                down_ = false;
                LOG_NORMAL("Elasticsearch at %s takes records again; %zu waiting requests go first",
                           settings_.bulk_url.c_str(), spool_.files());
            }
            busy_ = false;
            idle_.notify_all();
        }
    }

    // Called locked; unlocks while sending.
    Delivery send_spooled(std::unique_lock<std::mutex>& lock) {
        uint64_t sequence = spool_.oldest();
        lock.unlock();
        Delivery result = Delivery::done;
        if (std::optional<std::string> body = spool_.load(sequence)) {
            size_t documents = count_documents(*body);
            const size_t before = body->size();
            result = deliver(*body, documents);
            // What remains of a partly sent request replaces it on disk.
            if (result == Delivery::unreachable && body->size() != before) {
                spool_.store(sequence, *body);
            }
        }
        lock.lock();
        if (result == Delivery::done) spool_.remove(sequence);
        return result;
    }

    // Called locked; unlocks while sending.
    Delivery send_ready(std::unique_lock<std::mutex>& lock) {
        Batch batch = std::move(ready_.front());
        ready_.pop_front();
        ready_bytes_ -= batch.body.size();
        lock.unlock();
        Delivery result = deliver(batch.body, batch.documents);
        lock.lock();
        if (result == Delivery::done && spare_bodies_.size() < kSpareBodies) {
            batch.body.clear();
            spare_bodies_.push_back(std::move(batch.body));
        }
        if (result == Delivery::unreachable) {
            if (spool_.store(batch.sequence, batch.body)) {
                statistics_.documents_spooled += batch.documents;
            } else {
                ready_bytes_ += batch.body.size();
                ready_.push_front(std::move(batch));
            }
        }
        return result;
    }

    void count(uint64_t BulkStatistics::*field, uint64_t amount) {
        std::lock_guard lock(mutex_);
        statistics_.*field += amount;
    }

    // Sleeps, unless the sender is stopped meanwhile.
    void back_off(uint32_t attempt) {
        uint64_t wait_ms = uint64_t{settings_.retry_base_ms} << (attempt < 16 ? attempt : 16);
        if (wait_ms > kLongestBackOffMs) wait_ms = kLongestBackOffMs;
        std::unique_lock lock(mutex_);
        wake_.wait_for(lock, std::chrono::milliseconds(wait_ms), [this] { return stop_; });
    }

    // Sends `body` (`documents` documents) until it is taken or given up. Unreachable leaves
    // in `body` and `documents` what was not taken.
    Delivery deliver(std::string& body, size_t& documents) {
        for (uint32_t attempt = 0;; ++attempt) {
            if (abort_) return Delivery::unreachable;
            BulkReply reply = client_.post(body);
            count(&BulkStatistics::requests, 1);
            if (!reply.answered) {
                LOG_DEBUG("Bulk request to %s failed: %s", settings_.bulk_url.c_str(),
                          reply.error.c_str());
                count(&BulkStatistics::retries, 1);
                return Delivery::unreachable;
            }
            if (reply.status >= 200 && reply.status < 300) {
                BulkItems items = read_bulk_items(reply.body, documents);
                count(&BulkStatistics::documents_sent, items.accepted);
                count(&BulkStatistics::documents_failed, items.refused);
                if (items.throttled.empty()) return Delivery::done;
                std::vector<std::string> all = split_documents(body);
                body.clear();
                for (size_t position : items.throttled) {
                    if (position < all.size()) body += all[position];
                }
                documents = count_documents(body);
                if (documents == 0) return Delivery::done;
            } else if (reply.status == 413) {
                count(&BulkStatistics::retries, 1);
                return split_and_deliver(body, documents);
            } else if (reply.status != 429 && reply.status < 500) {
                LOG_ERROR(
                    "Elasticsearch at %s refused a bulk request of %zu records with status "
                    "%ld: %s",
                    settings_.bulk_url.c_str(), documents, reply.status,
                    reply.body.substr(0, 300).c_str());
                return Delivery::unreachable;
            }
            count(&BulkStatistics::retries, 1);
            if (attempt + 1 >= settings_.retry_attempts) {
                LOG_WARNING("Elasticsearch at %s still answers %ld after %u tries",
                            settings_.bulk_url.c_str(), reply.status, attempt + 1);
                return Delivery::unreachable;
            }
            back_off(attempt);
        }
    }

    // A request too large for the endpoint goes as two halves, each split again if need be.
    Delivery split_and_deliver(std::string& body, size_t& documents) {
        std::vector<std::string> all = split_documents(body);
        if (all.size() <= 1) {
            LOG_ERROR(
                "Elasticsearch at %s refuses a single record of %zu bytes as too large; "
                "it is dropped",
                settings_.bulk_url.c_str(), body.size());
            count(&BulkStatistics::documents_failed, all.size());
            return Delivery::done;
        }
        std::string first;
        std::string second;
        for (size_t i = 0; i < all.size(); ++i) (i < all.size() / 2 ? first : second) += all[i];
        size_t first_documents = all.size() / 2;
        size_t second_documents = all.size() - first_documents;
        if (deliver(first, first_documents) == Delivery::unreachable) {
            body = first + second;
            documents = first_documents + second_documents;
            return Delivery::unreachable;
        }
        if (deliver(second, second_documents) == Delivery::unreachable) {
            body = std::move(second);
            documents = second_documents;
            return Delivery::unreachable;
        }
        return Delivery::done;
    }

    const IndexSettings settings_;
    Spool spool_;
    std::atomic<bool> abort_{false};
    BulkClient client_;

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    Batch current_;
    std::deque<Batch> ready_;
    std::vector<std::string> spare_bodies_;
    size_t ready_bytes_ = 0;
    uint64_t next_sequence_;
    uint64_t next_id_ = 0;
    const std::string run_id_;
    bool stop_ = false;
    bool busy_ = false;
    bool down_ = false;
    bool finished_ = false;
    bool finishing_ = false;
    bool failed_while_finishing_ = false;
    Clock::time_point next_probe_;
    BulkStatistics statistics_;
    std::thread thread_;  // last: starts once everything above exists
};

BulkSender::BulkSender(const IndexSettings& settings)
    : impl_(std::make_unique<BulkSenderImpl>(settings)) {}

BulkSender::~BulkSender() = default;

void BulkSender::enqueue(std::string_view index, std::string_view document) {
    impl_->enqueue(index, document);
}

bool BulkSender::finish(std::chrono::milliseconds budget) {
    return impl_->finish(budget);
}

BulkStatistics BulkSender::statistics() const {
    return impl_->statistics();
}

}  // namespace vistrel::watchkeep
