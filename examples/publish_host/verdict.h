// What the end of a publishing connection means: try again, log in, or give up.
#pragma once

#include <rtmpcast/publish_client.h>

#include <string>

struct Verdict {
    enum class Kind { Retry, Login, GiveUp };
    Kind kind = Kind::Retry;
    std::string why; // for people
};

/*
 * From what RtmpPublisherStart or RtmpPublisherServe returned, and what the service has said.
 *
 * What a service refuses, it refuses for good: an application that it does not have, a key that it does not
 * take. Three kinds of refusal are temporary: a stream that is still being published, by its own description
 * ("already publishing") or because the service has taken this very key before (`wasTaken`) and has not
 * noticed yet that the connection before is over; a service that fails, is full or shuts down ("Failed",
 * "Shutdown", "Closed", "Unpublish", "InsufficientBW" in its code); and one that says nothing.
 */
Verdict judge(int32_t result, const PublishCtx &answers, bool wasTaken);
