#include "login.h"

#include <openssl/evp.h>

#include <algorithm>

namespace {

// Base64 of the MD5 of a text (RFC 1321, RFC 4648).
std::string digestOf(const std::string &text)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_md5(), nullptr) != 1) {
        return "";
    }
    unsigned char encoded[EVP_MAX_MD_SIZE * 2];
    const int size = EVP_EncodeBlock(encoded, digest, static_cast<int>(length));
    return std::string(encoded, encoded + size);
}

} // namespace

std::string queryValue(std::string_view text, std::string_view name)
{
    constexpr std::string_view kBefore = "?&; [";
    constexpr std::string_view kBehind = "&; ]";
    for (size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
        const bool isWhole = at == 0 || kBefore.find(text[at - 1]) != std::string_view::npos;
        const std::string_view rest = text.substr(at + name.size());
        if (isWhole && rest.starts_with('=')) {
            const std::string_view value = rest.substr(1);
            return std::string(value.substr(0, value.find_first_of(kBehind)));
        }
    }
    return "";
}

bool asksForLogin(std::string_view description)
{
    return description.find("authmod=") != std::string_view::npos;
}

/*
 * First the service learns who it is, and answers with salt and challenge, with an opaque value or without:
 *     secret   = base64(md5(user salt password))
 *     response = base64(md5(secret (opaque, or else challenge) nonce))
 */
std::string loginQuery(const std::string &description, const std::string &user, const std::string &password,
                       const std::string &nonce)
{
    if (queryValue(description, "authmod") != "adobe" || user.empty()) {
        return "";
    }
    const std::string who = "?authmod=adobe&user=" + user;
    const std::string reason = queryValue(description, "reason");
    if (reason.empty()) {
        return who;
    }
    if (reason != "needauth") {
        return ""; // "authfailed", "nosuchuser"
    }
    const std::string opaque = queryValue(description, "opaque");
    const std::string challenge = queryValue(description, "challenge");
    const std::string secret = digestOf(user + queryValue(description, "salt") + password);
    const std::string response = digestOf(secret + (opaque.empty() ? challenge : opaque) + nonce);
    return who + "&challenge=" + nonce + "&response=" + response +
           (opaque.empty() ? std::string() : "&opaque=" + opaque);
}
