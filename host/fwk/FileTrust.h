// Whether a path the process creates or trusts is its own: the rule the agent applies to
// every file and socket it opens at a predictable path (the FSIB's shared-memory segment, the
// control socket). Another local user must not be able to put something of theirs there, or
// swap what is there, between the agent's checks and its use.
#pragma once

#include <string>
#include <sys/types.h>

namespace Ovk {

// "name (uid N)", or "uid N" for a user without a name.
std::string userText(uid_t uid);
// The permission bits as four octal digits ("0644").
std::string modeText(mode_t mode);

// Why another user could put or swap something at `path`: the path is a symbolic link; or
// one of the directories on the way to it, as named and as its links lead, belongs to a user
// other than root and this process's, or is not a directory, or may be written by users
// other than its owner without the sticky bit (which keeps them from removing or renaming
// what is not theirs, as in /tmp). Empty when it is safe. The text names what is at fault.
std::string pathTrustProblem(std::string const& path);

} // namespace Ovk
