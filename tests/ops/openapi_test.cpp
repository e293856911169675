// docs/openapi.yaml: valid OpenAPI, describing exactly the endpoints the server serves, and its
// examples are what the server answers to the example requests of the same name.
#include <nlohmann/json.hpp>
#include <set>

#include "http/httpserver.h"
#include "http/routes.h"
#include "ops_server_fixture.h"
#include "support/eventually.h"

namespace vistrel::testing {
namespace {

const std::string kDocument = VISTREL_SOURCE_DIR "/docs/openapi.yaml";

// The document as JSON, as PyYAML reads it: plain scalars take their JSON type, quoted ones
// stay strings. `at(document, "/a/b")` is document["a"]["b"], null when missing.
const nlohmann::json& document() {
    static const nlohmann::json parsed = nlohmann::json::parse(
        run_command("/usr/bin/python3 -c 'import json, sys, yaml; "
                    "json.dump(yaml.safe_load(open(sys.argv[1])), sys.stdout)' " +
                    kDocument));
    return parsed;
}
nlohmann::json at(const nlohmann::json& node, const std::string& pointer) {
    return node.value(nlohmann::json::json_pointer(pointer), nlohmann::json());
}
std::string text(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

TEST(OpenApiDocumentTest, IsValidOpenApi) {
    const std::string result =
        run_command("swagger-cli validate " + kDocument + " 2>&1; echo rc=$?");
    EXPECT_NE(result.find("rc=0"), std::string::npos) << result;
}

TEST(OpenApiDocumentTest, DescribesExactlyTheServedEndpoints) {
    std::set<std::string> documented;
    for (const auto& [path, operations] : document()["paths"].items()) {
        for (const char* method : {"get", "post"}) {
            if (operations.contains(method)) documented.insert(std::string(method) + " " + path);
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

// The request of the example `name` of `operation`: path and query from the parameters'
// examples, the body from the request body's.
std::pair<std::string, std::string> request_of(std::string url, const nlohmann::json& operation,
                                               const std::string& name) {
    std::string query;
    for (const nlohmann::json& parameter : operation.value("parameters", nlohmann::json::array())) {
        const nlohmann::json example = at(parameter, "/examples/" + name + "/value");
        if (example.is_null()) continue;
        const std::string key = parameter["name"];
        if (parameter["in"] == "path") {
            url.replace(url.find("{" + key + "}"), key.size() + 2, text(example));
            continue;
        }
        for (const nlohmann::json& value :
             example.is_array() ? example : nlohmann::json::array({example})) {
            query += (query.empty() ? "?" : "&") + key + "=" + url_encode(text(value));
        }
    }
    const nlohmann::json body =
        at(operation, "/requestBody/content/application~1json/examples/" + name + "/value");
    return {url + query, body.is_null() ? "" : text(body)};
}

using OpenApiExamplesTest = OpsServerTest;

TEST_F(OpenApiExamplesTest, ExamplesAreTheServersReplies) {
    // The simulated device must be announced before the device examples are replayed.
    EXPECT_TRUE(eventually(
        [&] { return http_.get("/getDevices").body.find("00:1b:c5") != std::string::npos; }, 10));
    int replayed = 0;
    for (const auto& [path, operations] : document()["paths"].items()) {
        for (const char* method : {"get", "post"}) {
            if (!operations.contains(method)) continue;
            const nlohmann::json& operation = operations[method];
            for (const auto& [status, listed] : operation["responses"].items()) {
                nlohmann::json response = listed;
                if (response.contains("$ref")) {
                    const std::string name = response["$ref"];
                    response =
                        at(document(), "/components/responses/" + name.substr(name.rfind('/') + 1));
                }
                const nlohmann::json contents = response.value("content", nlohmann::json::object());
                for (const auto& [media, content] : contents.items()) {
                    const nlohmann::json examples =
                        content.value("examples", nlohmann::json::object());
                    for (const auto& [name, example] : examples.items()) {
                        if (!example.value("x-replay", true)) continue;
                        auto [url, body] = request_of(path, operation, name);
                        SCOPED_TRACE(std::string(method) + " " + url + " " + body + " (" + name +
                                     ")");
                        HttpResponse reply =
                            std::string(method) == "get" ? http_.get(url) : http_.post(url, body);
                        ++replayed;
                        EXPECT_EQ(reply.status, std::stol(status));
                        const nlohmann::json& expected = example["value"];
                        const bool varies = example.value("x-varies", false);
                        if (media != "application/json") {
                            if (!varies) {
                                EXPECT_EQ(reply.body, text(expected));
                            }
                            continue;
                        }
                        const nlohmann::json actual =
                            nlohmann::json::parse(reply.body, nullptr, false);
                        if (!varies) {
                            EXPECT_EQ(actual, expected) << reply.body;
                        } else if (expected.is_object()) {
                            for (const auto& [key, value] : expected.items()) {
                                EXPECT_TRUE(actual.contains(key)) << key << " in " << reply.body;
                            }
                        } else {
                            EXPECT_EQ(actual.type(), expected.type()) << reply.body;
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
