// Cues out of SubRip (SRT) or plain text, line by line, so that it may be a pipe.
#pragma once

#include "cue.h"

#include <optional>
#include <string>

class CueReader {
  public:
    // Takes a line without its end, at `now` milliseconds since the first picture. SubRip is known by its
    // first line with "-->"; until then each line that is not empty is a cue of its own, shown as soon as it
    // can be, behind the one before it, for as long as reading takes.
    std::optional<Cue> line(std::string line, int64_t now);

    // The last cue of SubRip, when there are no more lines.
    std::optional<Cue> end(int64_t now);

  private:
    enum class Form { Unknown, Plain, SubRip };

    std::optional<Cue> firstLine(const std::string &line, int64_t now);
    std::optional<Cue> plain(const std::string &line, int64_t now);
    std::optional<Cue> subRip(const std::string &line);
    std::optional<Cue> takeCue();

    Form form_ = Form::Unknown;
    std::string number_;      // a first line that may be the number of a SubRip cue
    std::optional<Cue> open_; // a SubRip cue whose text is being read
    int64_t lastEnd_ = 0;     // of plain text
};
