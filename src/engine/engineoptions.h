#pragma once

#include <string>

namespace vistrel::engine {

// What the capture engine is told besides its inputs: indexing switches and addresses.
struct EngineOptions {
    bool dns_mode_flag = false;
    bool arp_flag = false;
    bool pkt_stats_flag = false;
    std::string es_host = "localhost";
    std::string es_port = "9200";
    std::string flows_index = "vistrel";
    std::string http_index = "tidewell";
    std::string server_host = "localhost";
    std::string server_port = "8081";
    // Holds the engine command line once the session has built it.
    std::string extra;
};

}  // namespace vistrel::engine
