// What the library has put out in a test, and what it was sent: kept for scripts/texts.sh, which asks which
// test has seen each text of the sources. Nothing is kept unless RTMPCAST_TEXTS names a folder; every process
// writes a file of its own there, a line for each thing seen: kind, test, text, with tabs between them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace produced {

// Seen as it is: "log", a line behind its level; "host", a text that a host function was given; "file",
// "stdout", "stderr"; "request", what an HTTP client has sent.
void Note(const char *kind, std::string_view text);

// What came to standard output since testing::internal::CaptureStdout.
std::string CapturedStdout();

// The bytes of one direction of a connection, in the pieces in which they come: each AMF0 text in them (a
// length of 16 bits and as many printable characters) is seen, also where a piece ends within it.
class Texts {
  public:
    explicit Texts(const char *kind) : kind_(kind) {}
    void note(const void *bytes, size_t count);

  private:
    const char *kind_; // "wire", from the library; "sent", to it
    std::string rest_; // that may begin a text
};

} // namespace produced
