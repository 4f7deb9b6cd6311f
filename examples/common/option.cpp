#include "option.h"

#include <algorithm>
#include <charconv>

namespace {

const Option &findOption(std::span<const Option> table, const std::string &name)
{
    const auto found = std::ranges::find_if(
        table, [&name](const Option &option) { return option.apply != nullptr && name == option.name; });
    if (found == table.end()) {
        throw OptionError("unknown option '" + name + "'");
    }
    return *found;
}

} // namespace

std::vector<Option> joined(std::initializer_list<std::span<const Option>> tables)
{
    std::vector<Option> all;
    for (const std::span<const Option> table : tables) {
        all.insert(all.end(), table.begin(), table.end());
    }
    return all;
}

Options readOptions(int argc, char **argv, std::span<const Option> table, const Options &defaults)
{
    Options options = defaults;
    const std::span<char *> words(argv, static_cast<size_t>(argc));
    for (size_t at = 1; at < words.size(); ++at) {
        const std::string word = words[at];
        const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
        const Option &option = findOption(table, word.substr(0, equals));
        if (option.argument == nullptr) {
            if (equals != std::string::npos) {
                throw OptionError(std::string(option.name) + " takes no value");
            }
            option.apply(options, option, "");
        } else if (equals != std::string::npos) {
            option.apply(options, option, word.substr(equals + 1));
        } else if (at + 1 < words.size()) {
            option.apply(options, option, words[++at]);
        } else {
            throw OptionError(std::string(option.name) + " needs a value: " + option.argument);
        }
    }
    return options;
}

std::string optionsHelp(std::span<const Option> table)
{
    constexpr size_t kColumn = 40; // of the explanations
    std::string out;
    for (const Option &option : table) {
        if (option.name == nullptr) {
            out.append("\n").append(option.help).append("\n");
            continue;
        }
        std::string left(2, ' ');
        left.append(option.name);
        if (option.argument != nullptr) {
            left.append(" ").append(option.argument);
        }
        left.resize(std::max(left.size() + 2, kColumn), ' ');
        out.append(left).append(option.help).append("\n");
    }
    return out;
}

void refuseOption(const Option &option, const std::string &value, const std::string &wanted)
{
    throw OptionError(std::string(option.name) + ": '" + value + "' is not " + wanted);
}

uint32_t readNumber(const Option &option, const std::string &value)
{
    uint32_t number = 0;
    const char *end = value.data() + value.size();
    const std::from_chars_result read = std::from_chars(value.data(), end, number);
    if (value.empty() || read.ec != std::errc() || read.ptr != end || number < option.low ||
        number > option.high) {
        refuseOption(option, value,
                     "a number from " + std::to_string(option.low) + " to " + std::to_string(option.high));
    }
    return number;
}

void checkEncoding(Options &options)
{
    constexpr uint32_t kLowest = 64'000;
    constexpr uint32_t kHighest = 100'000'000;
    if (!options.encode.enabled) {
        if (options.encode.firstOption != nullptr) {
            throw OptionError(std::string(options.encode.firstOption) + " needs --encode");
        }
        return;
    }
    if (options.videoBitrate == 0) {
        options.videoBitrate = 4'000'000;
    }
    if (options.videoBitrate < kLowest || options.videoBitrate > kHighest) {
        throw OptionError("--video-bitrate: --encode takes from " + std::to_string(kLowest) + " to " +
                          std::to_string(kHighest) + " bit/s");
    }
}
