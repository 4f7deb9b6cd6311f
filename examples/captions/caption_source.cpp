#include "caption_source.h"

#include "caption_sei.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

constexpr size_t kLongestLine = 4096; // of standard input; what follows is a line of its own

CaptionGenerator *generatorOf(const RtmpSession *session)
{
    return reinterpret_cast<CaptionGenerator *>(session->CcGen->Handle);
}

// Waits for standard input. False: it is over, or the source is.
bool readSome(int wake, std::string &unread)
{
    pollfd ends[] = {{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0},
                     {.fd = wake, .events = POLLIN, .revents = 0}};
    if (poll(ends, 2, -1) < 0) {
        return errno == EINTR;
    }
    if (ends[1].revents != 0) {
        return false;
    }
    char bytes[1024];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count > 0) {
        unread.append(bytes, static_cast<size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

// The first line of what is unread, without its end.
std::optional<std::string> takeLine(std::string &unread)
{
    const size_t end = unread.find('\n');
    if (end == std::string::npos && unread.size() < kLongestLine) {
        return std::nullopt;
    }
    const size_t length = std::min(end, unread.size());
    std::string line = unread.substr(0, length);
    unread.erase(0, length + 1);
    return line;
}

} // namespace

CaptionSource::CaptionSource(const std::string &file)
{
    if (file != "-") {
        readFile(file);
        return;
    }
    wake_ = eventfd(0, EFD_CLOEXEC);
    if (wake_ < 0) {
        throw CaptionError(std::string("captions: ") + strerror(errno));
    }
    thread_ = std::thread(&CaptionSource::readInput, this);
}

CaptionSource::~CaptionSource()
{
    if (thread_.joinable()) {
        (void)eventfd_write(wake_, 1); // of an event that is 0: cannot fail
        thread_.join();
        close(wake_);
    }
}

void CaptionSource::take(std::optional<Cue> cue)
{
    if (cue) {
        cues_.add(*std::move(cue));
    }
}

void CaptionSource::readFile(const std::string &file)
{
    std::ifstream in(file);
    if (!in) {
        throw CaptionError("captions: cannot read '" + file + "': " + strerror(errno));
    }
    for (std::string line; std::getline(in, line);) {
        take(reader_.line(line, 0));
    }
    take(reader_.end(0));
    if (in.bad() || cues_.size() == 0) {
        throw CaptionError("captions: there is no text in '" + file + "'");
    }
}

void CaptionSource::readInput()
{
    std::string unread;
    while (readSome(wake_, unread)) {
        while (const std::optional<std::string> line = takeLine(unread)) {
            take(reader_.line(*line, now_));
        }
    }
    if (!unread.empty()) {
        take(reader_.line(unread, now_));
    }
    take(reader_.end(now_));
}

void CaptionSource::addTo(RtmpSession *session)
{
    if (generatorOf(session) == nullptr) {
        return; // there was no memory for it
    }
    generatorOf(session)->begin(*this, session->CcGen->Mode == 0);
    session->CcGen->Enabled = 1;
}

void CaptionSource::pictureAt(uint64_t timestamp)
{
    if (!begun_.exchange(true)) {
        first_ = timestamp;
    }
    now_ = static_cast<int64_t>(timestamp - first_);
}

void CaptionSource::pictureWasUnwatched(RtmpSession *session)
{
    if (CaptionGenerator *generator = generatorOf(session)) {
        generator->wasUnwatched();
    }
}

void CaptionGenerator::begin(const CaptionSource &source, bool inStream)
{
    source_ = &source;
    popOn_ = std::make_unique<PopOn>(source.cues());
    inStream_ = inStream;
}

void CaptionGenerator::wasUnwatched()
{
    isBehind_ = true;
}

// The sender's thread may be some pictures behind the host's: its clock goes by the pictures that it sends.
std::span<uint8_t> CaptionGenerator::next(uint32_t timestampDelta, bool hasPlace)
{
    if (source_ == nullptr) {
        return {};
    }
    const int64_t now = source_->now();
    clock_ = isBehind_.exchange(false) ? now : std::min(clock_ + timestampDelta, now);
    if (inStream_ && !hasPlace) {
        return {};
    }
    const std::optional<CaptionPair> pair = popOn_->next(clock_);
    if (!pair) {
        return {};
    }
    const std::vector<uint8_t> message = captionMessage(*pair);
    sei_ = inStream_ ? seiUnit(message) : message;
    return sei_;
}
