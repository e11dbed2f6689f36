#ifndef KES_ENERGY_MIRA_H
#define KES_ENERGY_MIRA_H

#include "kes_string.h"

namespace kes {
namespace Energy {

// The local receiver of every published value.
const char* const MIRA_HOST = "localhost";
const unsigned short MIRA_PORT = 16549;

// A record: the item number in host byte order, one length byte, the text.
const unsigned int MIRA_HEADER_SIZE = 5;
const unsigned int MIRA_TEXT_MAX = 255;
const unsigned int MIRA_RECORD_MAX = MIRA_HEADER_SIZE + MIRA_TEXT_MAX;

// Fills o_record and gives its length. A text the length byte cannot count
// is refused with a report and gives 0: a cut number would be a wrong value.
unsigned int kesEnergyBuildMiraRecord(unsigned int i_iid, const kesString& i_text,
                                      unsigned char (&o_record)[MIRA_RECORD_MAX]);

// Publishes one value as one datagram on a socket of its own, the host name
// resolved anew. Gives the byte count sent, or -1 or -2 as kesOsUdpSocket::Send;
// a refused text gives -1. The socket reports its own failures.
int kesEnergySendToMira(unsigned int i_iid, const kesString& i_text, unsigned short i_port = MIRA_PORT);

} // namespace Energy
} // namespace kes

#endif
