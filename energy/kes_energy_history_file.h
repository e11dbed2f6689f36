#ifndef KES_ENERGY_HISTORY_FILE_H
#define KES_ENERGY_HISTORY_FILE_H

#include "kes_error.h"
#include "kes_string.h"

namespace kes {
namespace Energy {

// Replaces the file by the text as a whole: the text goes to a temporary file
// beside it, is flushed to the disk and renamed over the name, so a crash at
// any moment leaves the old or the new text, never a short one. A linked file
// is replaced at its target, so the link stays; the new file keeps the old
// one's permission bits, and its owner and group where the daemon may set them.
// Only a regular file is replaced. i_bNew words a failure as the creation of a
// file that was not there. A file that is not there takes the bits and owner
// of i_like, if given: the live file that a rollover has just renamed.
kesEError kesEnergyHistoryReplaceFile(const kesString& i_path, const kesString& i_text, bool i_bNew,
                                      const kesString& i_like = kesString());

// Reads the whole file; a missing last line feed is put back.
kesEError kesEnergyHistoryReadFile(const kesString& i_path, kesString* o_text);

// Ends the period of a live file: it is renamed to its dated name. A linked
// live file is copied there instead, so the link stays for the next period.
kesEError kesEnergyHistoryRollFile(const kesString& i_path, const kesString& i_dated);

// Removes what a killed run left of its replacements: the temporary files of
// the folder's files whose names pass the test, beside them and, for linked
// files, beside their targets.
void kesEnergyHistoryRemoveTemporaries(const kesString& i_folder, bool (*i_pIsReplaced)(const kesString& i_name));

} // namespace Energy
} // namespace kes

#endif
