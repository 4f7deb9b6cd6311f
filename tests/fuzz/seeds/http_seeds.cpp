// Requests of the tunnel, well-formed, hostile and cut, as text and from a socket.
#include "seed_folder.h"

namespace {

constexpr uint8_t kFromSocket = 1;
constexpr uint8_t kInPieces = 2;

const char *const kRequest = "POST /open/1 HTTP/1.1\r\n";

void WriteText(SeedFolder &folder, const std::string &name, const Bytes &text)
{
    folder.write(name, Bytes{0} + text);
}

Bytes Lines(size_t count)
{
    Bytes out;
    for (size_t i = 0; i < count; i++) {
        out = out + ("H" + std::to_string(i) + ": " + std::to_string(i) + "\r\n");
    }
    return out;
}

void WriteHeaders(SeedFolder &folder)
{
    for (const size_t count : {15, 16, 17, 300}) {
        WriteText(folder, "headers_" + std::to_string(count), Text(kRequest) + Lines(count) + "\r\n");
    }
    const std::pair<const char *, const char *> lengths[] = {
        {"negative", "Content-Length: -5\r\n"},
        {"huge", "Content-Length: 99999999999999999999\r\n"},
        {"2_to_31", "Content-Length: 2147483648\r\n"},
        {"2_to_32", "Content-Length: 4294967296\r\n"},
        {"doubled", "Content-Length: 1\r\nContent-Length: 3\r\n"},
        {"without_space", "Content-Length:5\r\n"},
        {"two_more_than_left", "Content-Length: 10\r\n"},
        {"in_small_letters", "content-length: 8\r\n"},
    };
    for (const auto &[name, line] : lengths) {
        WriteText(folder, std::string("length_") + name, Text(kRequest) + line + "Ab: cd\r\n\r\nbody");
    }
    for (const int length : {12, 13, 14, 15}) { // of 14 bytes that are left
        WriteText(folder, "length_of_" + std::to_string(length),
                  Text(kRequest) + "Content-Length: " + std::to_string(length) + "\r\nAb: cd\r\n\r\nbody");
    }
    WriteText(folder, "nul_in_a_header",
              Text(kRequest) + Hex("'Content-Length' 00 'x: 3' 00 '4' 0D0A 'Ab: cd' 0D0A"));
}

void WriteTargets(SeedFolder &folder)
{
    const char *targets[] = {"/open",
                             "/",
                             "x",
                             "//1",
                             "/fcs/ident2",
                             "/clos/1",
                             "/idle//4",
                             "/idle/-1/0",
                             "/send/0042/7",
                             "/idle/7x/4",
                             "/close/4294967297/0"};
    for (const char *target : targets) {
        std::string name = target;
        std::replace(name.begin(), name.end(), '/', '_');
        WriteText(folder, "target" + name, Text("POST ") + target + " HTTP/1.1\r\n\r\n");
    }
    WriteText(folder, "nul_in_the_target", Hex("'POST /open' 00 '/1 HTTP/1.1' 0D0A 0D0A"));
    WriteText(folder, "nul_first_in_the_target", Hex("'POST ' 00 'open/1 HTTP/1.1' 0D0A 0D0A"));
    WriteText(folder, "nul_in_the_method", Hex("'POS' 00 ' /open/1 HTTP/1.1' 0D0A 0D0A"));
    WriteText(folder, "other_method", Text("GET /open/1 HTTP/1.1\r\n\r\n"));
}

void WriteBlocks(SeedFolder &folder)
{
    const Bytes whole = Text(kRequest) + "Content-Type: x\r\nContent-Length: 3\r\n\r\nabc";
    folder.write("socket_whole", Bytes{kFromSocket} + whole);
    for (const uint8_t piece : {uint8_t{0}, uint8_t{6}}) {
        folder.write("socket_in_pieces_of_" + std::to_string(piece + 1),
                     Bytes{kFromSocket | kInPieces, piece} + Slice(whole, 0, 90));
    }
    folder.write("socket_block_without_end", Bytes{kFromSocket} + Text(kRequest) + Lines(40));
    folder.write("socket_empty_lines_only", Bytes{kFromSocket} + Text("\r\n\r\n\r\n\r\n"));
    folder.write("socket_nothing", Bytes{kFromSocket});
    for (size_t length = 0; length < whole.size(); length += 4) {
        WriteText(folder, "cut_behind_" + std::to_string(length), Slice(whole, 0, length));
    }
}

} // namespace

void Seeds_http(SeedFolder &folder)
{
    WriteHeaders(folder);
    WriteTargets(folder);
    WriteBlocks(folder);
}
