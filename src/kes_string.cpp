#include "kes_string.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace kes {

namespace {

// Formats into a buffer of exactly `size` bytes: the text is cut rather than overrun.
std::string format_bounded(unsigned int size, const char* format, va_list args)
{
    if (size == 0 || !format)
        return std::string();
    std::vector<char> buffer(size);
    int written = vsnprintf(buffer.data(), size, format, args);
    if (written < 0)
        return std::string();
    return std::string(buffer.data());
}

} // namespace

kesString& kesString::SetFormat(unsigned int size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    assign(format_bounded(size, format, args));
    va_end(args);
    return *this;
}

kesString& kesString::AddFormat(unsigned int size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    const std::string text = format_bounded(size, format, args);
    va_end(args);
    append(text);
    return *this;
}

kesString& kesString::SetShrink(const kesString& characters, bool fromStart)
{
    if (empty())
        return *this;
    if (fromStart) {
        size_type first = find_first_not_of(characters);
        if (first != npos)
            erase(0, first);
        return *this;
    }
    size_type last = find_last_not_of(characters);
    if (last != npos)
        erase(last + 1);
    else if (size() == 2)
        erase(1);
    else
        clear();
    return *this;
}

kesString& kesString::SetLowCase()
{
    for (size_type i = 0; i < size(); ++i) {
        unsigned char c = static_cast<unsigned char>((*this)[i]);
        if (c >= 'A' && c <= 'Z')
            (*this)[i] = static_cast<char>(c - 'A' + 'a');
    }
    return *this;
}

kesString kesString::GetLowCase() const
{
    kesString copy(*this);
    copy.SetLowCase();
    return copy;
}

bool kesString::IsEqualNoCase(const kesString& other) const
{
    return size() == other.size() && GetLowCase() == other.GetLowCase();
}

kesString::size_type kesString::Find(const kesString& text, const unsigned int& start, bool ignoreCase,
                                     bool reverse) const
{
    if (ignoreCase) {
        kesString self = GetLowCase();
        kesString what = text.GetLowCase();
        return reverse ? self.rfind(what, size() - start) : self.find(what, start);
    }
    return reverse ? rfind(text, size() - start) : find(text, start);
}

void kesString::FindAndReplaceAll(const kesString& text, const kesString& replacement, bool ignoreCase)
{
    if (text.empty())
        return;
    kesString what = ignoreCase ? text.GetLowCase() : text;
    kesString copy = ignoreCase ? GetLowCase() : kesString();
    size_type pos = 0;
    for (;;) {
        pos = ignoreCase ? copy.find(what, pos) : find(what, pos);
        if (pos == npos)
            break;
        replace(pos, text.size(), replacement);
        if (ignoreCase)
            copy.replace(pos, text.size(), replacement);
        pos += replacement.size();
    }
}

void kesString::GetSplit(kesArray<kesString>* parts, const kesString& separator) const
{
    if (!parts)
        return;
    if (separator.empty()) {
        parts->AddBack(*this);
        return;
    }
    size_type pos = 0;
    for (;;) {
        size_type next = find(separator, pos);
        if (next == npos) {
            parts->AddBack(kesString(substr(pos)));
            return;
        }
        if (next > pos)
            parts->AddBack(kesString(substr(pos, next - pos)));
        pos = next + separator.size();
    }
}

unsigned int kesString::AsULong(const kesString& text, int base)
{
    // The 32-bit strtoul: a minus sign negates in the unsigned type, overflow gives the limit.
    const char* p = text.c_str();
    while (isspace(static_cast<unsigned char>(*p)))
        ++p;
    bool negative = false;
    if (*p == '-' || *p == '+') {
        negative = *p == '-';
        ++p;
        // strtoull would skip blanks and take another sign here: the number must follow the sign
        if (*p == '-' || *p == '+' || isspace(static_cast<unsigned char>(*p)))
            return 0;
    }
    errno = 0;
    unsigned long long value = strtoull(p, nullptr, base);
    if (errno == ERANGE || value > UINT32_MAX)
        return UINT32_MAX;
    unsigned int result = static_cast<unsigned int>(value);
    return negative ? 0u - result : result;
}

int kesString::AsInt(const kesString& text, int base)
{
    long value = strtol(text.c_str(), nullptr, base);
    if (value > INT32_MAX)
        return INT32_MAX;
    if (value < INT32_MIN)
        return INT32_MIN;
    return static_cast<int>(value);
}

double kesString::AsDouble(const kesString& text)
{
    return strtod(text.c_str(), nullptr);
}

kesString kesString::FromLong(long value)
{
    return kesString().SetFormat(32, "%li", value);
}

kesString kesString::FromInt(int value)
{
    return kesString().SetFormat(16, "%i", value);
}

kesString kesString::FromULong(unsigned long value)
{
    return kesString().SetFormat(32, "%lu", value);
}

kesString kesString::FromDouble(double value, int precision)
{
    if (value >= INT32_MIN && value <= INT32_MAX) { // also false for NaN
        long whole = static_cast<long>(value);
        if (value - static_cast<double>(whole) == 0.0)
            return FromLong(whole);
    }
    if (precision < 0)
        precision = 0;
    char format[32];
    snprintf(format, sizeof(format), "%%.%if", precision);
    char buffer[400]; // the largest double in %f form, with room for the decimals asked for
    snprintf(buffer, sizeof(buffer), format, value);
    kesString text(buffer);
    // Trailing zeros belong to the decimals only; without a point they are integer digits.
    if (text.find('.') != npos) {
        size_type last = text.find_last_not_of('0');
        text.erase(last + 1);
        if (!text.empty() && text[text.size() - 1] == '.')
            text.erase(text.size() - 1);
    }
    return text;
}

kesString kesString::FromFloat(float value, int precision)
{
    return FromDouble(static_cast<double>(value), precision);
}

} // namespace kes
