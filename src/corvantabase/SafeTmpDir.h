#pragma once
// The process owner's private temporary directory.

// Returns "$TMPDIR/corvanta-UID" ($TMPDIR only when it is an absolute path,
// else /tmp; UID is the effective user id), creating it with mode 0700 when it
// is missing. An existing entry is used only when it is a real directory (not
// a symlink) owned by the effective user and closed to group and others;
// anything else is refused with an ERROR line and a null result. The result
// is a block from malloc that the caller releases with free. `useConf` is
// accepted for the callers' sake; no settings are consulted.
char* File_GetSafeTmpDir(bool useConf);
