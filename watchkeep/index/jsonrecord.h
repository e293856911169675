#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vistrel::watchkeep {

// Writes one flat JSON object into a string, field by field, without building a tree: records
// are made at packet rate. Keys are the program's own constants and are not escaped; text
// values are (bytes outside ASCII are taken as Latin-1, so any input gives valid UTF-8).
class JsonRecord {
  public:
    JsonRecord() {
        text_.reserve(384);
        text_ += '{';
    }

    JsonRecord& number(std::string_view key, uint64_t value);
    JsonRecord& text(std::string_view key, std::string_view value);
    // IPv4 (first 4 bytes) or IPv6 address in its usual text form.
    JsonRecord& address(std::string_view key, uint8_t version, const uint8_t* address);
    // "aa:bb:cc:dd:ee:ff"
    JsonRecord& mac(std::string_view key, const uint8_t* mac);

    // The finished object; the record is empty afterwards.
    std::string take();

  private:
    void key(std::string_view key);

    std::string text_;
};

}  // namespace vistrel::watchkeep
