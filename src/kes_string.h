#ifndef KES_STRING_H
#define KES_STRING_H

#include <string>

#include "kes_containers.h"

namespace kes {

class kesString : public std::string {
public:
    kesString() {}
    kesString(const char* text) : std::string(text ? text : "") {}
    kesString(const char* text, size_type length) : std::string(text, length) {}
    kesString(const std::string& text) : std::string(text) {}
    kesString(const kesString& text) : std::string(text) {}
    kesString& operator=(const kesString& text)
    {
        std::string::operator=(text);
        return *this;
    }

    unsigned int GetLength() const { return static_cast<unsigned int>(size()); }
    void Clear() { clear(); }

    kesString& SetFormat(unsigned int size, const char* format, ...) __attribute__((format(printf, 3, 4)));
    kesString& AddFormat(unsigned int size, const char* format, ...) __attribute__((format(printf, 3, 4)));
    kesString& SetShrink(const kesString& characters, bool fromStart);
    kesString& SetLowCase();
    kesString GetLowCase() const;
    bool IsEqualNoCase(const kesString& other) const;
    size_type Find(const kesString& text, const unsigned int& start, bool ignoreCase, bool reverse) const;
    void FindAndReplaceAll(const kesString& text, const kesString& replacement, bool ignoreCase);
    void GetSplit(kesArray<kesString>* parts, const kesString& separator) const;

    static unsigned int AsULong(const kesString& text, int base);
    static int AsInt(const kesString& text, int base);
    static double AsDouble(const kesString& text);
    static kesString FromLong(long value);
    static kesString FromInt(int value);
    static kesString FromULong(unsigned long value);
    static kesString FromDouble(double value, int precision);
    static kesString FromFloat(float value, int precision);
};

} // namespace kes

#endif
