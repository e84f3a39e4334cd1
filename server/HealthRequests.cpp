#include "HealthRequests.h"

#include "Log.h"

namespace {

namespace status = websocketpp::http::status_code;

const char* const healthPath = "/health";
// Long enough that a page polling the endpoint is not preflighted before every request.
const char* const preflightMaxAge = "600";

// A monitoring check may add a query to get past a cache; the path alone decides.
std::string pathOf(const std::string& uri)
{
    return uri.substr(0, uri.find('?'));
}

bool asked(const websocketpp::http::parser::request& request, const char* header)
{
    return request.get_header(header) == "true";
}

} // namespace

HealthRequests::HealthRequests(OriginAllowList origins, Source source)
    : origins(std::move(origins)), source(std::move(source))
{
}

HealthRequests::Answer HealthRequests::answer(const websocketpp::http::parser::request& request) const
{
    if (!source || pathOf(request.get_uri()) != healthPath)
        return {};
    // Browsers send the Origin header, the same way as with the WebSocket handshake; a request
    // without one comes from a program on this machine (--status, a monitoring check), and is
    // served as the WebSocket serves such a client, whatever the list says.
    const std::string& origin = request.get_header("Origin");
    const std::string& method = request.get_method();
    if (method == "GET")
        return refuses(origin) ? Answer{status::forbidden, {}, {}} : health(origin);
    if (method == "OPTIONS" && !request.get_header("Access-Control-Request-Method").empty())
        return refuses(origin) ? Answer{status::forbidden, {}, {}} : preflight(request, origin);
    return {};
}

HealthRequests::Answer HealthRequests::health(const std::string& origin) const
{
    Answer answer{status::ok, {{"Content-Type", "application/json"}, {"Cache-Control", "no-store"}}, {}};
    if (!origin.empty())
        answer.headers.insert(answer.headers.end(), {{"Access-Control-Allow-Origin", origin}, {"Vary", "Origin"}});
    answer.body = source().toStdString();
    return answer;
}

HealthRequests::Answer HealthRequests::preflight(const websocketpp::http::parser::request& request,
                                                 const std::string& origin) const
{
    Answer answer{status::no_content, {}, {}};
    if (!origin.empty())
        answer.headers.emplace_back("Access-Control-Allow-Origin", origin);
    answer.headers.insert(answer.headers.end(), {{"Access-Control-Allow-Methods", "GET"},
                                                 {"Access-Control-Max-Age", preflightMaxAge},
                                                 {"Vary", "Origin"}});
    // Browsers ask before a public page may reach a service on this machine; the two header
    // names are the older and the newer draft of that rule.
    if (asked(request, "Access-Control-Request-Private-Network"))
        answer.headers.emplace_back("Access-Control-Allow-Private-Network", "true");
    if (asked(request, "Access-Control-Request-Local-Network"))
        answer.headers.emplace_back("Access-Control-Allow-Local-Network", "true");
    return answer;
}

bool HealthRequests::refuses(const std::string& origin) const
{
    const QString text = QString::fromStdString(origin);
    if (origins.allows(text))
        return false;
    TLOG_WARN() << "Refused health request from origin" << text;
    return true;
}
