// The source of frames that the command line chose, and its frames at their time.
#pragma once

#include "captions/caption_source.h"
#include "console.h"
#include "frame_source.h"
#include "options.h"
#include "pacer.h"

#include <functional>
#include <memory>
#include <string>

// `clip` is the file without --input and --encode. Throws SourceError.
std::unique_ptr<FrameSource> openSource(const Options &options, const std::string &clip);

// Null without --captions. Throws CaptionError.
std::unique_ptr<CaptionSource> openCaptions(const Options &options);

// Hands over each frame at its time, with the host's clock in milliseconds, until the flag is raised. Throws
// SourceError.
void sendFrames(FrameSource &source,
                const std::function<void(const Frame &frame, uint64_t timestamp)> &deliver, Console &console,
                const StopFlag &stop);

// For the console.
int logLevelOf(const Options &options);
