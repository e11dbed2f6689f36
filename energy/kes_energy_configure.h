// What a configuration file can name, shared by the daemon and the tools that
// read or write its file.
#ifndef KES_ENERGY_CONFIGURE_H
#define KES_ENERGY_CONFIGURE_H

#include "kes_string.h"

namespace kes {
namespace Energy {

// What one field of a reading is, and from which channel.
enum ValueKind { KIND_NONE, KIND_VOLT, KIND_AMPERE, KIND_POWER, KIND_TEMPERATURE, KIND_RATE, KIND_COUNT, KIND_STATUS };

struct ValueField {
    ValueKind kind;
    unsigned char channel;
};

const unsigned int MAX_FIELDS = 10;

#define V            \
    {                \
        KIND_VOLT, 0 \
    }
#define T                   \
    {                       \
        KIND_TEMPERATURE, 0 \
    }
#define A(n)           \
    {                  \
        KIND_AMPERE, n \
    }
#define P(n)          \
    {                 \
        KIND_POWER, n \
    }
#define R(n)         \
    {                \
        KIND_RATE, n \
    }
#define C(n)          \
    {                 \
        KIND_COUNT, n \
    }
#define S              \
    {                  \
        KIND_STATUS, 0 \
    }
// The fields of each device type by fid, in the order the configuration numbers them.
inline constexpr ValueField FIELDS[12][MAX_FIELDS] = {
    {},                                                           // 0: no type
    {V, T},                                                       // 1 Panel
    {V, A(0), P(0)},                                              // 2 String
    {V, A(0), P(0), S},                                           // 3 Alarm
    {},                                                           // 4 Ambient: never raised
    {R(0), C(0)},                                                 // 5 PulseCounter
    {V, A(0), P(0), A(1), P(1)},                                  // 6 StringTwo
    {V, A(0), P(0), A(1), P(1), A(2), P(2), A(3), P(3)},          // 7 StringFour
    {R(0), C(0), R(1), C(1)},                                     // 8 PulseCounterTwo
    {R(0), C(0), R(1), C(1), R(2), C(2), R(3), C(3), R(4), C(4)}, // 9 PulseCounterFive
    {V, A(0), P(0)},                                              // 10 StringOne
    {V, A(0), P(0), A(1), P(1), A(2), P(2)},                      // 11 StringThree
};
#undef V
#undef T
#undef A
#undef P
#undef R
#undef C
#undef S

// Whether TinyXML may read the text: it is well-formed UTF-8, or TinyXML does
// not read it as UTF-8 (another encoding declared). o_where, when not null,
// gets where it is not. TinyXML trusts the length a lead byte announces and
// reads past the end of a cut sequence, so a file goes to it only after this.
bool kesEnergyIsSafeXmlText(const kesString& text, kesString* o_where);
bool kesEnergyIsUtf8File(const kesString& path, kesString* o_where);

} // namespace Energy
} // namespace kes

#endif
