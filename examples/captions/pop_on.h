// Which pair of caption bytes goes with which picture.
#pragma once

#include "cea608.h"
#include "cue_list.h"

#include <deque>
#include <optional>
#include <utility>

// One stream of captions. A caption is loaded into the hidden memory in front of its time, shown with the
// first picture that is not earlier than its start, and erased with the first that is not earlier than its
// end.
class PopOn {
  public:
    explicit PopOn(const CueList &cues) : cues_(cues) {}

    // The pair of the picture at `time`, milliseconds since the first picture; CaptionPair{} where nothing is
    // to be said. None: pictures come faster than the 30 pairs a second that line 21 has.
    std::optional<CaptionPair> next(int64_t time);

  private:
    struct Part { // as much of a cue as is shown at once
        int64_t start;
        int64_t end;
        std::vector<CaptionPair> pairs;
    };

    bool takeSlot(int64_t time);
    CaptionPair choose(int64_t time);
    void prepare(int64_t time);
    void readCues(int64_t time);
    void split(const Cue &cue);
    int64_t loadingTime() const;
    CaptionPair twice(CaptionControl control);

    const CueList &cues_;
    size_t nextCue_ = 0;
    std::deque<Part> parts_; // the first is the one that is loaded
    size_t loaded_ = 0;      // pairs of it that are out
    bool isLoading_ = false; // its time has come
    std::optional<int64_t> shownUntil_;
    std::optional<CaptionPair> repeat_; // a control pair, once more
    std::optional<int64_t> lastTime_;
    int64_t pictureMs_ = 33; // from one picture to the next
    int64_t credit_ = 0;     // milliseconds of line 21 that no pair has used
};
