#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vistrel::watchkeep {

// Writes one flat JSON object into a caller's string, field by field, without building a tree:
// records are made at packet rate, and a string kept by the caller keeps its storage from one
// record to the next. Keys are the program's own constants and are not escaped; text values
// are (bytes outside ASCII are taken as Latin-1, so any input gives valid UTF-8).
class JsonRecord {
  public:
    // Starts the object in `out`, replacing what it held.
    explicit JsonRecord(std::string& out);

    JsonRecord& number(std::string_view key, uint64_t value);
    JsonRecord& text(std::string_view key, std::string_view value);
    // IPv4 (first 4 bytes) or IPv6 address in its usual text form (as inet_ntop writes it).
    JsonRecord& address(std::string_view key, uint8_t version, const uint8_t* address);
    // "aa:bb:cc:dd:ee:ff"
    JsonRecord& mac(std::string_view key, const uint8_t* mac);

    // Closes the object; `out` then holds exactly it.
    void finish();

  private:
    // Room for `bytes` more characters at the end of what is written; returns where it starts.
    char* room(size_t bytes);
    char* key(std::string_view key, size_t value_bytes);
    void done(const char* end) { used_ = static_cast<size_t>(end - out_.data()); }

    std::string& out_;
    size_t used_ = 0;
};

}  // namespace vistrel::watchkeep
