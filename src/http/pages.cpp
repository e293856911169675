#include "http/pages.h"

namespace vistrel::http {

namespace {

// Nothing configures an allowed origin today, so "*" is what the dormant CORS path would send.
const std::string kAllowedOrigin;

MHD_Result queue_copy(MHD_Connection* connection, const std::string& body, int status, bool cors) {
    MHD_Response* response = MHD_create_response_from_buffer(
        body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    if (cors) {
        MHD_add_response_header(response, "Access-Control-Allow-Origin",
                                kAllowedOrigin.empty() ? "*" : kAllowedOrigin.c_str());
        if (!kAllowedOrigin.empty()) {
            MHD_add_response_header(response, "Access-Control-Allow-Credentials", "true");
            MHD_add_response_header(response, "Vary", "Origin");
        }
        MHD_add_response_header(response, "Access-Control-Max-Age", "1728000");
    }
    MHD_Result result = MHD_queue_response(connection, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    return result;
}

}  // namespace

MHD_Result send_text(MHD_Connection* connection, const std::string& body, int status, bool cors) {
    if (body.empty() || status < 1) {
        return queue_copy(connection, "Sorry! Internal Server Error. Please retry later", 500,
                          cors);
    }
    return queue_copy(connection, body, status, cors);
}

MHD_Result send_html_page(MHD_Connection* connection, const std::string& message, bool refresh,
                          int status) {
    std::string page =
        refresh ? "<html><meta http-equiv=\"refresh\" content=\"1\"/><body>" : "<html><body>";
    page += message;
    page += "</body></html>";
    return queue_copy(connection, page, status, false);
}

std::string styled_error_page(const std::string& title, const std::string& message) {
    return "<head><style>"
           "body{margin:5em;font-family:\"Roboto\",\"Helvetica Neue\",Helvetica,Arial,sans-serif;"
           "font-weight:400;line-height:1.1;color:#52545c;"
           "background:linear-gradient(-60deg,#f7f8fa,#f5f6f9 70%,#f7f8fa 98%);}"
           "a{color:#61c2f2;text-decoration:underline;cursor:pointer;}"
           "</style></head>"
           "<h1 style=\"color:#005f9d\">Vistrel</h1>"
           "<h2>" +
           title + "</h2><p>" + message +
           "</p>"
           "<a href=\"https://support.quellwick.example/vistrel\" target=\"_blank\">Get Support</a>"
           "</body></html>";
}

MHD_Result send_styled_error_page(MHD_Connection* connection, const std::string& title,
                                  const std::string& message, int status) {
    return send_html_page(connection, styled_error_page(title, message), false, status);
}

}  // namespace vistrel::http
