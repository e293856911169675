// docs/openapi.yaml: valid OpenAPI, describing exactly the endpoints the server serves, and its
// examples are what the server answers to the example requests of the same name.
#include <yaml-cpp/yaml.h>

#include <nlohmann/json.hpp>
#include <set>

#include "http/httpserver.h"
#include "http/routes.h"
#include "ops_server_fixture.h"

namespace vistrel::testing {
namespace {

const std::string kDocument = VISTREL_SOURCE_DIR "/docs/openapi.yaml";

// Plain YAML scalars take their JSON type; quoted ones stay strings.
nlohmann::json to_json(const YAML::Node& node) {
    if (node.IsMap()) {
        nlohmann::json object = nlohmann::json::object();
        for (const auto& entry : node)
            object[entry.first.as<std::string>()] = to_json(entry.second);
        return object;
    }
    if (node.IsSequence()) {
        nlohmann::json array = nlohmann::json::array();
        for (const auto& item : node) array.push_back(to_json(item));
        return array;
    }
    if (node.IsNull()) return nullptr;
    const std::string text = node.as<std::string>();
    if (node.Tag() == "?") {
        if (text == "true" || text == "false") return text == "true";
        nlohmann::json number = nlohmann::json::parse(text, nullptr, false);
        if (number.is_number()) return number;
    }
    return text;
}

// node[k1][k2]...; an empty node when a key is missing on the way (yaml-cpp throws instead).
YAML::Node find(YAML::Node node, std::initializer_list<std::string> keys) {
    for (const std::string& key : keys) {
        if (!node.IsMap() || !node[key]) return YAML::Node();
        node.reset(node[key]);  // operator= would write into the document
    }
    return node;
}

TEST(OpenApiDocumentTest, IsValidOpenApi) {
    const std::string result =
        run_command("swagger-cli validate " + kDocument + " 2>&1; echo rc=$?");
    EXPECT_NE(result.find("rc=0"), std::string::npos) << result;
}

TEST(OpenApiDocumentTest, DescribesExactlyTheServedEndpoints) {
    const YAML::Node paths = YAML::LoadFile(kDocument)["paths"];
    std::set<std::string> documented;
    for (const auto& path : paths) {
        for (const char* method : {"get", "post"}) {
            if (path.second[method]) {
                documented.insert(std::string(method) + " " + path.first.as<std::string>());
            }
        }
    }
    std::set<std::string> served;
    const http::HttpServer& server = http::HttpServer::instance();
    for (const http::GetRoute& route : server.get_routes()) {
        if (!route.handler) continue;
        // URLs that merely contain the path are documented as files below it.
        served.insert("get " + route.path + (route.match_anywhere ? "{file}" : ""));
    }
    for (const http::PostRoute& route : server.post_routes()) {
        if (route.handler) served.insert("post " + route.path);
    }
    http::HttpServer::discard();
    EXPECT_EQ(documented, served);
}

class OpenApiExamplesTest : public OpsServerTest {
  protected:
    // The request of the example `name` of `operation`: path and query from the parameters'
    // examples, the body from the request body's.
    static std::pair<std::string, std::string> request_of(const std::string& path,
                                                          const YAML::Node& operation,
                                                          const std::string& name) {
        std::string url = path;
        std::string query;
        for (const YAML::Node& parameter : operation["parameters"]) {
            const YAML::Node example = find(parameter, {"examples", name});
            if (!example.IsDefined() || example.IsNull()) continue;
            const std::string key = parameter["name"].as<std::string>();
            if (parameter["in"].as<std::string>() == "path") {
                const std::string placeholder = "{" + key + "}";
                url.replace(url.find(placeholder), placeholder.size(),
                            example["value"].as<std::string>());
                continue;
            }
            std::vector<std::string> values;
            if (example["value"].IsSequence()) {
                for (const auto& value : example["value"])
                    values.push_back(value.as<std::string>());
            } else {
                values.push_back(example["value"].as<std::string>());
            }
            for (const std::string& value : values) {
                query += (query.empty() ? "?" : "&") + key + "=" + url_encode(value);
            }
        }
        std::string body;
        const YAML::Node body_example =
            find(operation, {"requestBody", "content", "application/json", "examples", name});
        if (body_example.IsMap()) {
            const YAML::Node value = body_example["value"];
            body = value.IsScalar() ? value.as<std::string>() : to_json(value).dump();
        }
        return {url + query, body};
    }
};

TEST_F(OpenApiExamplesTest, ExamplesAreTheServersReplies) {
    // The simulated device must be announced before the device examples are replayed.
    for (int i = 0; i < 100 && http_.get("/getDevices").body.find("00:1b:c5") == std::string::npos;
         ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const YAML::Node document = YAML::LoadFile(kDocument);
    int replayed = 0;
    for (const auto& path_entry : document["paths"]) {
        const std::string path = path_entry.first.as<std::string>();
        for (const char* method : {"get", "post"}) {
            const YAML::Node operation = path_entry.second[method];
            if (!operation) continue;
            for (const auto& response_entry : operation["responses"]) {
                YAML::Node response = response_entry.second;
                if (response["$ref"]) {
                    std::string name = response["$ref"].as<std::string>();
                    response.reset(find(
                        document, {"components", "responses", name.substr(name.rfind('/') + 1)}));
                }
                for (const auto& content : find(response, {"content"})) {
                    const std::string media = content.first.as<std::string>();
                    for (const auto& example_entry : find(content.second, {"examples"})) {
                        const std::string name = example_entry.first.as<std::string>();
                        const YAML::Node example = example_entry.second;
                        if (example["x-replay"] && !example["x-replay"].as<bool>()) continue;
                        auto [url, body] = request_of(path, operation, name);
                        SCOPED_TRACE(std::string(method) + " " + url + " " + body + " (" + name +
                                     ")");
                        HttpResponse reply =
                            std::string(method) == "get" ? http_.get(url) : http_.post(url, body);
                        ++replayed;
                        EXPECT_EQ(reply.status, response_entry.first.as<long>());
                        const bool varies = example["x-varies"] && example["x-varies"].as<bool>();
                        if (media == "application/json") {
                            const nlohmann::json expected = to_json(example["value"]);
                            const nlohmann::json actual =
                                nlohmann::json::parse(reply.body, nullptr, false);
                            if (!varies) {
                                EXPECT_EQ(actual, expected) << reply.body;
                            } else if (expected.is_object()) {
                                for (const auto& [key, value] : expected.items()) {
                                    EXPECT_TRUE(actual.contains(key))
                                        << key << " in " << reply.body;
                                }
                            } else {
                                EXPECT_EQ(actual.type(), expected.type()) << reply.body;
                            }
                        } else if (!varies) {
                            EXPECT_EQ(reply.body, example["value"].as<std::string>());
                        }
                    }
                }
            }
        }
    }
    EXPECT_GT(replayed, 20);
}

}  // namespace
}  // namespace vistrel::testing
