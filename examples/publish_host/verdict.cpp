#include "verdict.h"

#include "login.h"

#include "common/viewers.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace {

bool holds(const std::string &text, std::string_view part)
{
    const auto isSame = [](char one, char other) {
        return tolower(static_cast<unsigned char>(one)) == tolower(static_cast<unsigned char>(other));
    };
    return std::ranges::search(text, part, isSame).begin() != text.end();
}

bool isTemporary(const std::string &code, const std::string &description, bool wasTaken)
{
    constexpr std::string_view kPassing[] = {"Failed", "Shutdown", "Closed", "Unpublish", "InsufficientBW"};
    if (holds(code, "BadName")) {
        return wasTaken || holds(description, "already");
    }
    return std::ranges::any_of(kPassing, [&code](std::string_view part) { return holds(code, part); });
}

// A service's own words, on one line.
std::string quoted(const std::string &code, const std::string &description)
{
    if (code.empty()) {
        return "\"" + printable(description) + "\"";
    }
    return printable(code) + (description.empty() ? "" : " (\"" + printable(description) + "\")");
}

Verdict judgeRefusal(const PublishCtx &answers, bool wasTaken)
{
    const bool isStatus = std::string_view(answers.StatusLevel) == "error";
    const std::string code = isStatus ? answers.StatusCode : answers.ErrorCode;
    const std::string description = isStatus ? answers.StatusDescription : answers.ErrorDescription;
    if (asksForLogin(description)) {
        return {Verdict::Kind::Login, description};
    }
    const Verdict::Kind kind =
        isTemporary(code, description, wasTaken) ? Verdict::Kind::Retry : Verdict::Kind::GiveUp;
    return {kind, "it refuses: " + quoted(code, description)};
}

// How far it came, by the answers that there are.
std::string step(const PublishCtx &answers)
{
    return answers.ResultTransactionId < 1 ? " before it has answered \"connect\" (some do so for an "
                                             "application that they do not have)"
                                           : "";
}

} // namespace

Verdict judge(int32_t result, const PublishCtx &answers, bool wasTaken)
{
    if (answers.ChallengeString[0] != '\0' && !wasTaken) {
        return {Verdict::Kind::GiveUp,
                "it asks for a login of its own: setChallenge \"" + printable(answers.ChallengeString) +
                    "\", session " + printable(answers.SessionIdText) + ", which this program cannot answer"};
    }
    switch (result) {
    case RTMP_ERR_REFUSED:
        return judgeRefusal(answers, wasTaken);
    case RTMP_ERR_NO_ANSWER:
        return {Verdict::Kind::Retry, "it does not answer"};
    case RTMP_ERR_CONNECTION:
        return {Verdict::Kind::Retry, "the connection has ended" + (wasTaken ? "" : step(answers))};
    default:
        return {Verdict::Kind::Retry, "the library has failed (code " + std::to_string(result) + ")"};
    }
}
