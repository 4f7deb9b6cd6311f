// What each failing call comes to, side by side with the table of transcripts.txt.
#pragma once

#include "support/calls.h"

#include <string>
#include <vector>

namespace every_call {

struct NamedCall {
    Call call;
    const char *name;
};

// Every kind of call that is made to fail, in the order of the table.
extern const std::vector<NamedCall> kKinds;

struct Outcome {
    std::string kind;
    int number;
    int code;
    std::vector<std::string> lines;
};

// The outcomes of one way are those under its heading in transcripts.txt. Neighbours of the same kind with
// the same code and lines stand as one row, the lines with which the call begins also when nothing fails are
// counted, and addresses and descriptors are left open.
void ExpectTranscript(const std::string &heading, const std::vector<Outcome> &failures, const Outcome &good);

} // namespace every_call
