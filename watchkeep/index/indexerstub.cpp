#include "index/indexer.h"

// Placeholder until the indexing pipeline lands: accepts everything, sends nothing.
namespace vistrel::watchkeep {

class BulkSenderImpl {};
class SourceIndexerImpl {};

BulkSender::BulkSender(const IndexSettings&) {}
BulkSender::~BulkSender() = default;
void BulkSender::enqueue(const std::string&, std::string) {}
bool BulkSender::finish(std::chrono::milliseconds) {
    return true;
}

SourceIndexer::SourceIndexer(const IndexSettings&, BulkSender&, std::string) {}
SourceIndexer::~SourceIndexer() = default;
void SourceIndexer::packet(uint32_t, uint64_t, const uint8_t*, uint32_t, uint32_t) {}
void SourceIndexer::drops(uint64_t, uint64_t) {}
void SourceIndexer::tick(uint64_t) {}
void SourceIndexer::finish() {}

}  // namespace vistrel::watchkeep
