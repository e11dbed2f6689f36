#ifndef KES_ENERGY_HISTORY_FILE_H
#define KES_ENERGY_HISTORY_FILE_H

#include "kes_error.h"
#include "kes_string.h"

namespace kes
{
namespace Energy
{

// Replaces the file by the text as a whole: the text goes to a temporary file
// in the same folder, is flushed to the disk and renamed over the name, so a
// crash at any moment leaves the old or the new text, never a short one.
// i_bNew words a failure as the creation of a file that was not there.
kesEError kesEnergyHistoryReplaceFile(const kesString& i_path, const kesString& i_text, bool i_bNew);

// Reads the whole file; a missing last line feed is put back.
kesEError kesEnergyHistoryReadFile(const kesString& i_path, kesString* o_text);

} // namespace Energy
} // namespace kes

#endif
