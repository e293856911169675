// The shipped Grafana dashboard: its download link, filled with the variables Grafana puts in,
// is a request that /getCapture answers with a pcapng stream; the data sources it uses are
// provisioned.
#include <yaml-cpp/yaml.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "ops_server_fixture.h"

namespace vistrel::testing {
namespace {

const std::string kGrafanaFolder = VISTREL_SOURCE_DIR "/config/grafana";

nlohmann::json dashboard() {
    std::ifstream file(kGrafanaFolder + "/dashboard.json");
    return nlohmann::json::parse(file);
}

// Every link of the dashboard and of its panels.
std::vector<std::string> download_links(const nlohmann::json& board) {
    std::vector<std::string> urls;
    auto take = [&urls](const nlohmann::json& links) {
        for (const nlohmann::json& link : links) {
            const std::string url = link.value("url", "");
            if (url.find("/getCapture") != std::string::npos) urls.push_back(url);
        }
    };
    take(board.value("links", nlohmann::json::array()));
    for (const nlohmann::json& panel : board["panels"]) {
        take(panel["fieldConfig"]["defaults"].value("links", nlohmann::json::array()));
        take(panel.value("links", nlohmann::json::array()));
    }
    return urls;
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at)) {
        text.replace(at, from.size(), to);
        at += to.size();
    }
}

TEST(GrafanaDashboardTest, VariablesAndDataSourcesAreThoseTheServerAndEngineUse) {
    const nlohmann::json board = dashboard();
    std::map<std::string, nlohmann::json> variables;
    for (const nlohmann::json& variable : board["templating"]["list"]) {
        variables[variable["name"]] = variable;
    }
    ASSERT_TRUE(variables.count("esinterface"));
    EXPECT_NE(variables["esinterface"]["query"].get<std::string>().find("\"INTERFACE\""),
              std::string::npos);
    EXPECT_TRUE(variables["esinterface"]["multi"].get<bool>());
    ASSERT_TRUE(variables.count("Filters"));
    EXPECT_EQ(variables["Filters"]["type"], "adhoc");
    ASSERT_TRUE(variables.count("bidirectionalfilter"));
    ASSERT_TRUE(variables.count("cs_address"));
    EXPECT_EQ(variables["cs_address"]["query"], "cs_address");

    std::set<std::string> provisioned;
    for (const YAML::Node& source :
         YAML::LoadFile(kGrafanaFolder + "/provisioning/datasources/vistrel.yaml")["datasources"]) {
        provisioned.insert(source["uid"].as<std::string>());
    }
    std::set<std::string> used;
    for (const auto& [name, variable] : variables) {
        if (variable.contains("datasource")) used.insert(variable["datasource"]["uid"]);
    }
    for (const nlohmann::json& panel : board["panels"]) {
        used.insert(panel["datasource"]["uid"]);
        for (const nlohmann::json& target : panel["targets"]) {
            used.insert(target["datasource"]["uid"]);
        }
    }
    for (const std::string& uid : used) EXPECT_TRUE(provisioned.count(uid)) << uid;
}

class GrafanaLinkTest : public OpsServerTest {};

TEST_F(GrafanaLinkTest, FilledDownloadLinkStreamsTheFilteredCapture) {
    register_capture();
    // The server's answer to the dashboard's own cs_address search.
    HttpResponse search = http_.post("/search", R"({"target":"cs_address"})");
    ASSERT_EQ(search.status, 200);
    const std::string address = nlohmann::json::parse(search.body).at(0);

    const std::vector<std::string> links = download_links(dashboard());
    ASSERT_FALSE(links.empty());
    for (std::string url : links) {
        SCOPED_TRACE(url);
        // As Grafana fills them: an absolute range in milliseconds, and every variable as
        // var-NAME=VALUE, ad-hoc filters as KEY|OPERATOR|VALUE.
        replace_all(url, "${cs_address}", address);
        replace_all(url, "${cs_port}", std::to_string(server_.port()));
        replace_all(url, "${__url_time_range}",
                    "from=" + std::to_string(kBase / 1000000) +
                        "&to=" + std::to_string((kBase + kPackets * kSecond) / 1000000));
        replace_all(url, "${__all_variables}",
                    "var-cs_address=" + address + "&var-cs_port=" + std::to_string(server_.port()) +
                        "&var-esinterface=dev&var-bidirectionalfilter=false"
                        "&var-Filters=L4_DST_PORT%7C%3D%7C53");
        ASSERT_EQ(url.find('$'), std::string::npos) << "a variable Grafana would not fill";

        HttpResponse response = HttpClient("").get(url);
        ASSERT_EQ(response.status, 200);
        EXPECT_EQ(response.headers["content-type"], "application/x-pcapng");
        ASSERT_GE(response.body.size(), 4u);
        EXPECT_EQ(response.body.substr(0, 4), std::string("\x0a\x0d\x0d\x0a", 4));
        EXPECT_EQ(tshark_packets(response.body), static_cast<size_t>(kPackets / 3));
    }
}

}  // namespace
}  // namespace vistrel::testing
