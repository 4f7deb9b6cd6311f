// The challenge login that services ask for with "authmod=adobe" in the description of an _error: two more
// connections, whose "app" carries a query. What is sent proves the password without showing it.
#pragma once

#include <string>
#include <string_view>

// The value of `name` in "...name=value&..."; empty: there is none.
std::string queryValue(std::string_view text, std::string_view name);

// The query for the next connection's app and tcUrl, from the description of the refusal; empty: it asks for
// nothing that can be answered. `nonce` is eight hexadecimal digits of the client's own choice.
std::string loginQuery(const std::string &description, const std::string &user, const std::string &password,
                       const std::string &nonce);

// Whether a refusal asks for a login at all, of whatever scheme.
bool asksForLogin(std::string_view description);
