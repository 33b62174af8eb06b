#pragma once

#include <QString>

// Where a QEMU's QMP monitor listens: a TCP port on 127.0.0.1, or a Unix socket.
struct QmpEndpoint
{
    quint16 port = 0;
    QString socketPath;  // a Unix socket when non-empty
    bool isLocalSocket() const { return !socketPath.isEmpty(); }
};
