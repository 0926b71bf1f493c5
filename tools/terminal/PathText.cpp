#include "tools/terminal/PathText.h"

#include <cstddef>

namespace {

unsigned char byteAt(const std::string& text, std::size_t index)
{
    return static_cast<unsigned char>(text[index]);
}

// The length of the UTF-8 sequence at `index`, 0 when there is no valid one: neither overlong, nor
// a surrogate, nor beyond the last code point.
std::size_t sequenceLength(const std::string& text, std::size_t index)
{
    const unsigned char lead = byteAt(text, index);
    if (lead < 0x80)
        return 1;
    if (lead < 0xC2 || lead > 0xF4)
        return 0;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (index + length > text.size())
        return 0;
    unsigned char lowest = 0x80;
    unsigned char highest = 0xBF;
    if (lead == 0xE0)
        lowest = 0xA0;
    if (lead == 0xED)
        highest = 0x9F;
    if (lead == 0xF0)
        lowest = 0x90;
    if (lead == 0xF4)
        highest = 0x8F;
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char byte = byteAt(text, index + i);
        if (byte < lowest || byte > highest)
            return 0;
        lowest = 0x80;
        highest = 0xBF;
    }
    return length;
}

// Both sets of control characters: below the blank with DEL, and U+0080 to U+009F.
bool isControl(const std::string& text, std::size_t index, std::size_t length)
{
    const unsigned char lead = byteAt(text, index);
    if (length == 1)
        return lead < 0x20 || lead == 0x7F;
    return length == 2 && lead == 0xC2 && byteAt(text, index + 1) < 0xA0;
}

void appendEscaped(std::string& out, unsigned char byte)
{
    static const char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 0x0F];
}

} // namespace

std::string PathText::printable(const std::string& path)
{
    if (path.empty())
        return "''";
    std::string out;
    for (std::size_t i = 0; i < path.size();) {
        const std::size_t length = sequenceLength(path, i);
        const bool shown = length != 0 && !isControl(path, i, length);
        const std::size_t step = length == 0 ? 1 : length;
        for (std::size_t k = 0; k < step; ++k) {
            if (shown)
                out += path[i + k];
            else
                appendEscaped(out, byteAt(path, i + k));
        }
        i += step;
    }
    return out;
}
