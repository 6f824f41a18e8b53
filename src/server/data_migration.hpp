// Carries a user's directories over from the program's old name to the new one, once.
#pragma once

#include "server/environment.hpp"

namespace spotserver {

// Moves base/"velkor-tuner" to base/"corvane" for the user's configuration, data and state
// directories, leaves a link under the old name, and rewrites paths into the old directories in the
// .conf and .ini files of the configuration directory. Base: $XDG_CONFIG_HOME, $XDG_DATA_HOME and
// $XDG_STATE_HOME where absolute, otherwise $HOME/.config, .local/share and .local/state where HOME
// is absolute, otherwise none.
// A new directory that holds anything is never touched, and neither is a configuration file that is
// a link, not a regular file, or larger than 16 MiB. A rewritten file keeps its permission bits.
// Silent: whatever fails is left as it is. A later call picks up the directories that are left; it
// also removes what a killed one left of a rewriting: a beginning of the new text under the file's
// name plus ".rename". Call before any other thread exists.
void migrateDataDirectories(const Environment& environment);
void migrateDataDirectories();  // with the process's own environment

}  // namespace spotserver
