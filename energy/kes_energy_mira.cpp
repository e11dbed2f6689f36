#include "kes_energy_mira.h"

#include "kes_error.h"
#include "kes_osudpsocket.h"

#include <cstring>

namespace kes {
namespace Energy {

static_assert(sizeof(unsigned int) == 4, "the record holds the item number in four bytes");

unsigned int kesEnergyBuildMiraRecord(unsigned int i_iid, const kesString& i_text,
                                      unsigned char (&o_record)[MIRA_RECORD_MAX])
{
    if (i_text.size() > MIRA_TEXT_MAX) {
        KES_LOG(kesErrorInvalidArgument, kesString("Text of item ") + kesString::FromULong(i_iid) + " is " +
                                             kesString::FromULong(i_text.size()) + " bytes, over " +
                                             kesString::FromULong(MIRA_TEXT_MAX) + ": not published");
        return 0;
    }
    memcpy(o_record, &i_iid, sizeof(i_iid));
    o_record[4] = static_cast<unsigned char>(i_text.size());
    memcpy(o_record + MIRA_HEADER_SIZE, i_text.data(), i_text.size());
    return MIRA_HEADER_SIZE + static_cast<unsigned int>(i_text.size());
}

int kesEnergySendToMira(unsigned int i_iid, const kesString& i_text, unsigned short i_port)
{
    unsigned char record[MIRA_RECORD_MAX];
    unsigned int length = kesEnergyBuildMiraRecord(i_iid, i_text, record);
    if (length == 0)
        return -1;

    kesOsUdpSocket socket;
    socket.SetTo(MIRA_HOST, i_port);
    int sent = socket.Send(record, length);
    socket.Close();
    return sent;
}

} // namespace Energy
} // namespace kes
