#include "capture/bpftranslation.h"

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <optional>
#include <vector>

namespace vistrel::capture {

namespace {

// Why a filter stays with tshark, thrown out of the parser and caught once.
struct Unsupported {
    std::string reason;
};

enum class ValueKind { kIpv4, kIpv6, kMac, kNumber, kFlag };

// One place a field's value sits in a packet: under `condition`, the bytes `load` reads.
struct Location {
    std::string_view condition;
    std::string_view load;
};

// A field of the display-filter language with an exact counterpart on plain traffic. Address
// fields are matched with libpcap primitives (`match` holds a "%" for the value); numeric
// fields with loads. Several values (tcp.port, ip.addr) mean "any of them".
struct Field {
    std::string_view name;
    ValueKind kind;
    std::string_view presence;  // the packets that carry the field; empty: every packet
    std::vector<std::vector<Location>> values;
    std::vector<std::string_view> match;
    uint64_t maximum = 0;
    uint64_t flag_mask = 0;
};

constexpr std::string_view kTcp4 = "ip[9] = 6";
constexpr std::string_view kTcp6 = "ip6[6] = 6";
constexpr std::string_view kUdp4 = "ip[9] = 17";
constexpr std::string_view kUdp6 = "ip6[6] = 17";
constexpr std::string_view kTcpFlags4 = "tcp[12:2] & 0xfff";
constexpr std::string_view kTcpFlags6 = "ip6[52:2] & 0xfff";

std::vector<Field> make_fields() {
    std::vector<Field> fields = {
        {"ip.src", ValueKind::kIpv4, "ip", {}, {"ip src host %"}},
        {"ip.dst", ValueKind::kIpv4, "ip", {}, {"ip dst host %"}},
        {"ip.addr", ValueKind::kIpv4, "ip", {}, {"ip src host %", "ip dst host %"}},
        {"ipv6.src", ValueKind::kIpv6, "ip6", {}, {"ip6 src host %"}},
        {"ipv6.dst", ValueKind::kIpv6, "ip6", {}, {"ip6 dst host %"}},
        {"ipv6.addr", ValueKind::kIpv6, "ip6", {}, {"ip6 src host %", "ip6 dst host %"}},
        {"eth.src", ValueKind::kMac, "", {}, {"ether src %"}},
        {"eth.dst", ValueKind::kMac, "", {}, {"ether dst %"}},
        {"eth.addr", ValueKind::kMac, "", {}, {"ether src %", "ether dst %"}},
        {"eth.type", ValueKind::kNumber, "ether[12:2] > 1500", {{{"", "ether[12:2]"}}}, {}, 0xffff},
        {"ip.proto", ValueKind::kNumber, "ip", {{{"", "ip[9]"}}}, {}, 0xff},
        {"ip.ttl", ValueKind::kNumber, "ip", {{{"", "ip[8]"}}}, {}, 0xff},
        {"tcp.srcport",
         ValueKind::kNumber,
         "tcp",
         {{{kTcp4, "tcp[0:2]"}, {kTcp6, "ip6[40:2]"}}},
         {},
         0xffff},
        {"tcp.dstport",
         ValueKind::kNumber,
         "tcp",
         {{{kTcp4, "tcp[2:2]"}, {kTcp6, "ip6[42:2]"}}},
         {},
         0xffff},
        {"tcp.port",
         ValueKind::kNumber,
         "tcp",
         {{{kTcp4, "tcp[0:2]"}, {kTcp6, "ip6[40:2]"}}, {{kTcp4, "tcp[2:2]"}, {kTcp6, "ip6[42:2]"}}},
         {},
         0xffff},
        {"udp.srcport",
         ValueKind::kNumber,
         "udp",
         {{{kUdp4, "udp[0:2]"}, {kUdp6, "ip6[40:2]"}}},
         {},
         0xffff},
        {"udp.dstport",
         ValueKind::kNumber,
         "udp",
         {{{kUdp4, "udp[2:2]"}, {kUdp6, "ip6[42:2]"}}},
         {},
         0xffff},
        {"udp.port",
         ValueKind::kNumber,
         "udp",
         {{{kUdp4, "udp[0:2]"}, {kUdp6, "ip6[40:2]"}}, {{kUdp4, "udp[2:2]"}, {kUdp6, "ip6[42:2]"}}},
         {},
         0xffff},
        {"tcp.flags",
         ValueKind::kNumber,
         "tcp",
         {{{kTcp4, kTcpFlags4}, {kTcp6, kTcpFlags6}}},
         {},
         0xfff},
    };
    constexpr std::array<std::pair<std::string_view, uint64_t>, 8> kFlags = {{
        {"tcp.flags.fin", 0x01},
        {"tcp.flags.syn", 0x02},
        {"tcp.flags.reset", 0x04},
        {"tcp.flags.push", 0x08},
        {"tcp.flags.ack", 0x10},
        {"tcp.flags.urg", 0x20},
        {"tcp.flags.ece", 0x40},
        {"tcp.flags.cwr", 0x80},
    }};
    for (const auto& [name, mask] : kFlags) {
        fields.push_back({name,
                          ValueKind::kFlag,
                          "tcp",
                          {{{kTcp4, kTcpFlags4}, {kTcp6, kTcpFlags6}}},
                          {},
                          1,
                          mask});
    }
    return fields;
}

const std::vector<Field>& fields() {
    static const std::vector<Field> table = make_fields();
    return table;
}

// Protocols named alone: present or not.
std::optional<std::string_view> protocol_test(std::string_view name) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 7> kProtocols = {{
        {"arp", "arp"},
        {"icmp", "icmp"},
        {"icmpv6", "icmp6"},
        {"tcp", "tcp"},
        {"udp", "udp"},
        {"ip", "ip"},
        {"ipv6", "ip6"},
    }};
    for (const auto& [display, bpf] : kProtocols) {
        if (display == name) return bpf;
    }
    return std::nullopt;
}

bool is_word_char(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.' || c == ':' ||
           c == '-' || c == '/';
}

std::vector<std::string> tokenize(std::string_view text) {
    static constexpr std::array<std::string_view, 11> kSymbols = {
        "&&", "||", "==", "!=", "<=", ">=", "<", ">", "!", "(", ")"};
    std::vector<std::string> tokens;
    size_t at = 0;
    while (at < text.size()) {
        if (std::isspace(static_cast<unsigned char>(text[at]))) {
            ++at;
            continue;
        }
        if (is_word_char(text[at])) {
            size_t end = at;
            while (end < text.size() && is_word_char(text[end])) ++end;
            tokens.emplace_back(text.substr(at, end - at));
            at = end;
            continue;
        }
        bool found = false;
        for (std::string_view symbol : kSymbols) {
            if (text.substr(at, symbol.size()) == symbol) {
                // "===", "!==" and "=" alone are other operators than the ones handled here.
                if (at + symbol.size() < text.size() && text[at + symbol.size()] == '=') break;
                tokens.emplace_back(symbol);
                at += symbol.size();
                found = true;
                break;
            }
        }
        if (!found)
            throw Unsupported{"unsupported syntax at '" + std::string(text.substr(at)) + "'"};
    }
    return tokens;
}

std::optional<std::string> comparison_operator(const std::string& token) {
    if (token == "==" || token == "eq") return "=";
    if (token == "!=" || token == "ne") return "!=";
    if (token == "<" || token == "lt") return "<";
    if (token == ">" || token == "gt") return ">";
    if (token == "<=" || token == "le") return "<=";
    if (token == ">=" || token == "ge") return ">=";
    return std::nullopt;
}

// Decimal without leading zeros (tshark reads those as octal) or 0x hexadecimal.
std::optional<uint64_t> parse_number(const std::string& text, uint64_t maximum) {
    uint64_t value = 0;
    size_t at = 0;
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        at = 2;
    } else if (text.empty() || (text.size() > 1 && text[0] == '0')) {
        return std::nullopt;
    }
    if (text.size() - at > 8) return std::nullopt;
    for (; at < text.size(); ++at) {
        const char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[at])));
        int digit;
        if (c >= '0' && c <= '9') {
            digit = c - '0';
        } else if (base == 16 && c >= 'a' && c <= 'f') {
            digit = c - 'a' + 10;
        } else {
            return std::nullopt;
        }
        value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digit);
    }
    if (value > maximum) return std::nullopt;
    return value;
}

// Six hexadecimal pairs joined by ":" or "-", written back with ":".
std::optional<std::string> parse_mac(const std::string& text) {
    if (text.size() != 17) return std::nullopt;
    std::string mac = text;
    for (size_t i = 0; i < mac.size(); ++i) {
        if (i % 3 == 2) {
            if (mac[i] != ':' && mac[i] != '-') return std::nullopt;
            mac[i] = ':';
        } else if (!std::isxdigit(static_cast<unsigned char>(mac[i]))) {
            return std::nullopt;
        }
    }
    return mac;
}

std::string replace_value(std::string_view pattern, const std::string& value) {
    std::string text(pattern);
    const size_t at = text.find('%');
    return text.replace(at, 1, value);
}

std::string any_of(const std::vector<std::string>& tests) {
    if (tests.size() == 1) return tests.front();
    std::string text = "(";
    for (size_t i = 0; i < tests.size(); ++i) text += (i ? " or " : "") + tests[i];
    return text + ")";
}

class Parser {
  public:
    explicit Parser(std::vector<std::string> tokens) : tokens_(std::move(tokens)) {}

    std::string parse() {
        if (tokens_.empty()) throw Unsupported{"empty filter"};
        std::string bpf = expression();
        if (at_ < tokens_.size()) throw Unsupported{"unexpected '" + tokens_[at_] + "'"};
        return bpf;
    }

  private:
    bool accept(std::string_view a, std::string_view b = {}) {
        if (at_ < tokens_.size() && (tokens_[at_] == a || (!b.empty() && tokens_[at_] == b))) {
            ++at_;
            return true;
        }
        return false;
    }

    const std::string& next(const char* expected) {
        if (at_ >= tokens_.size()) throw Unsupported{std::string("missing ") + expected};
        return tokens_[at_++];
    }

    // A || b && c is left to tshark: its precedence is not worth guessing.
    std::string expression() {
        std::string left = unary();
        std::string joiner;
        for (;;) {
            std::string op;
            if (accept("&&", "and")) op = "and";
            if (op.empty() && accept("||", "or")) op = "or";
            if (op.empty()) break;
            if (!joiner.empty() && joiner != op) {
                throw Unsupported{"&& and || mixed without parentheses"};
            }
            joiner = op;
            left += " " + op + " " + unary();
        }
        return joiner.empty() ? left : "(" + left + ")";
    }

    std::string unary() {
        if (accept("!", "not")) return "not " + unary();
        if (accept("(")) {
            std::string inner = expression();
            if (!accept(")")) throw Unsupported{"unbalanced parentheses"};
            return "(" + inner + ")";
        }
        return term();
    }

    std::string term() {
        const std::string name = next("a field");
        std::optional<std::string> op;
        if (at_ < tokens_.size()) op = comparison_operator(tokens_[at_]);
        if (!op) {
            if (auto protocol = protocol_test(name)) return std::string(*protocol);
            throw Unsupported{"'" + name + "' has no exact BPF equivalent"};
        }
        ++at_;
        const std::string value = next("a value");
        for (const Field& field : fields()) {
            if (field.name == name) return comparison(field, *op, value);
        }
        throw Unsupported{"'" + name + "' has no exact BPF equivalent"};
    }

    // tshark's "==" and the ordered operators hold when any value of the field does; "!="
    // when the field is present and no value is equal.
    static std::string comparison(const Field& field, const std::string& op,
                                  const std::string& value) {
        std::string equal;
        if (!field.match.empty()) {
            if (op != "=" && op != "!=") {
                throw Unsupported{"ordered comparison of '" + std::string(field.name) + "'"};
            }
            std::string text = value;
            if (field.kind == ValueKind::kMac) {
                auto mac = parse_mac(value);
                if (!mac) throw Unsupported{"MAC address '" + value + "'"};
                text = *mac;
            } else {
                uint8_t buffer[16];
                const int family = field.kind == ValueKind::kIpv4 ? AF_INET : AF_INET6;
                if (inet_pton(family, value.c_str(), buffer) != 1) {
                    throw Unsupported{"address '" + value + "'"};
                }
            }
            std::vector<std::string> tests;
            for (std::string_view pattern : field.match)
                tests.push_back(replace_value(pattern, text));
            equal = any_of(tests);
            if (op == "=") return equal;
        } else {
            std::optional<uint64_t> number;
            if (field.kind == ValueKind::kFlag) {
                if (op != "=" && op != "!=") {
                    throw Unsupported{"ordered comparison of '" + std::string(field.name) + "'"};
                }
                if (value == "1") number = field.flag_mask;
                if (value == "0") number = 0;
            } else {
                number = parse_number(value, field.maximum);
            }
            if (!number) {
                throw Unsupported{"value '" + value + "' of '" + std::string(field.name) + "'"};
            }
            const std::string wanted = std::to_string(*number);
            const std::string mask =
                field.kind == ValueKind::kFlag ? " & " + std::to_string(field.flag_mask) : "";
            const std::string compare = op == "!=" ? "=" : op;
            std::vector<std::string> tests;
            for (const auto& locations : field.values) {
                for (const Location& location : locations) {
                    std::string test = "(" + std::string(location.load) + ")" + mask + " " +
                                       compare + " " + wanted;
                    if (!location.condition.empty()) {
                        test = "(" + std::string(location.condition) + " and " + test + ")";
                    }
                    tests.push_back(test);
                }
            }
            equal = any_of(tests);
            if (!field.presence.empty())
                equal = "(" + std::string(field.presence) + " and " + equal + ")";
            if (op != "!=") return equal;
        }
        if (field.presence.empty()) return "not " + equal;
        return "(" + std::string(field.presence) + " and not " + equal + ")";
    }

    std::vector<std::string> tokens_;
    size_t at_ = 0;
};

}  // namespace

BpfTranslation translate_to_bpf(std::string_view display_filter) {
    BpfTranslation translation;
    try {
        translation.bpf = Parser(tokenize(display_filter)).parse();
    } catch (const Unsupported& unsupported) {
        translation.bpf.clear();
        translation.reason = unsupported.reason;
    }
    return translation;
}

}  // namespace vistrel::capture
