// The text test of a configuration file, shared by the daemon and the tools
// that read or write its file.
#ifndef KES_ENERGY_CONFIGURE_H
#define KES_ENERGY_CONFIGURE_H

#include "kes_string.h"

namespace kes {
namespace Energy {

// Whether TinyXML may read the text: it is well-formed UTF-8, or TinyXML does
// not read it as UTF-8 (another encoding declared). o_where, when not null,
// gets where it is not. TinyXML trusts the length a lead byte announces and
// reads past the end of a cut sequence, so a file goes to it only after this.
bool kesEnergyIsSafeXmlText(const kesString& text, kesString* o_where);
bool kesEnergyIsUtf8File(const kesString& path, kesString* o_where);

} // namespace Energy
} // namespace kes

#endif
