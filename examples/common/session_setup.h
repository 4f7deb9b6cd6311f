// What the command line and the source say, told to a session.
#pragma once

#include "captions/caption_source.h"
#include "frame_source.h"
#include "options.h"

#include <rtmpcast/rtmpcast.h>

#include <stdexcept>
#include <string>

// A server or session that cannot be made.
class HostError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Sender, bandwidth monitor, controller, and a trace unless the directory is "", captions unless they are
// null. What fails is in the library's log.
void configureSession(RtmpSession *session, const Options &options, const std::string &traceDirectory,
                      CaptionSource *captions);

// Throws HostError.
void addMedia(RtmpSession *session, const Options &options, const MediaDescription &media);
