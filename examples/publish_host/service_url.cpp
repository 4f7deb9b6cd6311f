#include "service_url.h"

#include "common/options.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace {

constexpr uint16_t kRtmpPort = 1935; // RTMP 1.0, 5
constexpr uint16_t kRtmpsPort = 443;

[[noreturn]] void refuse(const std::string &why)
{
    throw OptionError("--to: " + why + "; it takes rtmp[s]://[USER:PASSWORD@]HOST[:PORT]/APP/KEY");
}

std::string_view takeScheme(std::string_view text, ServiceUrl &url)
{
    constexpr std::string_view kPlain = "rtmp://";
    constexpr std::string_view kTls = "rtmps://";
    url.tls = text.starts_with(kTls);
    url.port = url.tls ? kRtmpsPort : kRtmpPort;
    if (!url.tls && !text.starts_with(kPlain)) {
        refuse("this URL begins with neither rtmp:// nor rtmps://");
    }
    return text.substr(url.tls ? kTls.size() : kPlain.size());
}

void readPort(std::string_view text, ServiceUrl &url)
{
    const char *end = text.data() + text.size();
    const std::from_chars_result read = std::from_chars(text.data(), end, url.port);
    if (read.ec != std::errc() || read.ptr != end || url.port == 0) {
        refuse("'" + std::string(text) + "' is no port");
    }
}

// Of user and password: RFC 3986, 2.1.
std::string decoded(std::string_view text)
{
    std::string out;
    for (size_t at = 0; at < text.size(); ++at) {
        unsigned value = 0;
        const std::string_view digits = text.substr(std::min(at + 1, text.size()), 2);
        const bool isWhole =
            text[at] == '%' && digits.size() == 2 &&
            std::from_chars(digits.data(), digits.data() + 2, value, 16).ptr == digits.data() + 2;
        out.push_back(isWhole ? static_cast<char>(value) : text[at]);
        at += isWhole ? 2 : 0;
    }
    return out;
}

// [USER:PASSWORD@]HOST[:PORT]
void readAuthority(std::string_view text, ServiceUrl &url)
{
    if (const size_t at = text.rfind('@'); at != std::string_view::npos) {
        const std::string_view login = text.substr(0, at);
        const size_t colon = login.find(':');
        url.user = decoded(login.substr(0, colon));
        url.password = colon != std::string_view::npos ? decoded(login.substr(colon + 1)) : std::string();
        text.remove_prefix(at + 1);
    }
    const size_t colon = text.find(':');
    url.host = text.substr(0, colon);
    if (url.host.empty() || url.host.front() == '[') {
        refuse("no host name and no IPv4 address");
    }
    if (colon != std::string_view::npos) {
        readPort(text.substr(colon + 1), url);
    }
}

// The key is what stands behind the last slash; slashes of its query do not count.
size_t slashBeforeKey(std::string_view path)
{
    const size_t slash = path.substr(0, path.find('?')).rfind('/');
    return slash != std::string_view::npos ? slash : path.rfind('/'); // else: a query of the application's
}

bool isControl(char each)
{
    return static_cast<unsigned char>(each) <= ' ' || each == 0x7F;
}

} // namespace

std::string ServiceUrl::connectUrl() const
{
    const bool isDefault = port == (tls ? kRtmpsPort : kRtmpPort);
    return (tls ? "rtmps://" : "rtmp://") + host + (isDefault ? "" : ":" + std::to_string(port)) + "/" + app;
}

ServiceUrl parseServiceUrl(const std::string &text)
{
    constexpr size_t kLongest = 4096;
    ServiceUrl url;
    if (text.size() > kLongest || std::ranges::any_of(text, isControl)) {
        refuse("this URL is too long, or has blanks or control characters");
    }
    const std::string_view rest = takeScheme(text, url);
    const size_t path = rest.find('/');
    if (path == std::string_view::npos) {
        refuse("no application and no key");
    }
    readAuthority(rest.substr(0, path), url);
    const std::string_view names = rest.substr(path + 1);
    const size_t slash = slashBeforeKey(names);
    url.app = names.substr(0, slash);
    url.key = slash != std::string_view::npos ? names.substr(slash + 1) : std::string_view();
    if (url.app.empty() || url.key.empty()) {
        refuse("no application or no key");
    }
    return url;
}
