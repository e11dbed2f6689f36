// The devices a search found, written into the daemon's configuration file.
#ifndef KES_BUS_CONF_H
#define KES_BUS_CONF_H

#include <string>

#include "kes_containers.h"
#include "kes_enerysystem.h"

namespace kes {

// Item numbers: 100000 x line id + 100 x module number + fid. A module number
// is at most 655 and a fid at most 9, so no two lines share an item number;
// this is the largest line id that keeps every item number in 32 bits.
const unsigned int KES_BUS_MAX_LINE_ID = 42949;
// No -id given: the id of the line replaced, or 1 for a new line.
const unsigned int KES_BUS_LINE_ID_OF_FILE = 0xFFFFFFFFu;

unsigned int kesBusItemNumber(unsigned int i_lineId, unsigned int i_mid, unsigned int i_fid);

// Replaces the line of i_address in the file i_path, keeping every other
// element and comment, or writes a whole file when there is none; the file
// changes in one step or not at all. o_text gets what was written, or why not.
bool kesBusWriteConfiguration(const std::string& i_path, const std::string& i_address, unsigned int i_lineId,
                              const kesArray<kesEnergyDevice>& i_devices, std::string* o_text);

} // namespace kes

#endif
