#pragma once

#include <QString>

// Where a device's QMP monitor listens when it uses a Unix socket: "qmp.sock" in the device's
// own folder, which only its owner can enter. A socket address holds at most 107 bytes, so a
// longer path moves the socket into a private folder of the user's runtime directory, under a
// name derived from the device folder's path (the same name at every call).
QString qmpSocketPath(const QString &devicePath);

// Makes a folder reachable by its owner alone (mode 0700); false when that cannot be done.
bool makeOwnerOnly(const QString &folder);
