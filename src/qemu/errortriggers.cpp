#include "errortriggers.h"

#include <QByteArray>

bool isErrorTriggerSet(const char *token)
{
    if (!token || !*token)
        return false;
    return qgetenv("QV_TRIGGER_ERROR").contains(QByteArray(token));
}

namespace ErrorTriggers {

const QStringList &vocabulary()
{
    static const QStringList tokens = {
        QStringLiteral("vboxlaunchpad"),
        QStringLiteral("vboxplayer"),
        QStringLiteral("vboxmachinerunning"),
        QStringLiteral("vboxmachinepause"),
        QStringLiteral("vboxmachineprocess"),
        QStringLiteral("vboxmachineaborted"),
        QStringLiteral("incompatiblestate"),
        QStringLiteral("noip"),
        QStringLiteral("incompatibleosimagearch"),
        QStringLiteral("devicenotstarted"),
        QStringLiteral("novirtinbios"),
        QStringLiteral("nomulticpu"),
        QStringLiteral("novirtincpu"),
        QStringLiteral("hostonlycreation"),
        QStringLiteral("hostonlyconfiguration"),
        QStringLiteral("hostonlydeletion"),
        QStringLiteral("noopengl"),
        QStringLiteral("oldopengl"),
        QStringLiteral("segfault"),
        QStringLiteral("corrupteddownload"),
        QStringLiteral("devicepropertiesfailed"),
        QStringLiteral("snapshotnotfound"),
        QStringLiteral("deletedevicefailed"),
        QStringLiteral("renamedevicefailed"),
        QStringLiteral("qemunotinstalled"),
        QStringLiteral("vboxnotinstalled"),
        QStringLiteral("createsharedfolderfailed"),
        QStringLiteral("savesnapshotfailed"),
        QStringLiteral("servicefailed"),
        QStringLiteral("hypervhaxmerror"),
        QStringLiteral("deviceupdatefailed"),
        QStringLiteral("restoringarchivesfailed"),
        QStringLiteral("memorynotsupportederror"),
        QStringLiteral("amplitudeerror"),
    };
    return tokens;
}

bool qemuNotInstalled() { return isErrorTriggerSet("qemunotinstalled"); }
bool hypervisorError() { return isErrorTriggerSet("hypervhaxmerror"); }
bool memoryNotSupported() { return isErrorTriggerSet("memorynotsupportederror"); }

} // namespace ErrorTriggers
