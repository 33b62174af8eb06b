#pragma once

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QSize>
#include <QString>

// One screen of a device.
struct HwDisplay
{
    qint32 width = 1280;
    qint32 height = 768;
    qint32 density = 120;
    double physicalSize = 9.0;  // diagonal, inches
    qint32 bottomCornerRadius = 0;
    qint32 topCornerRadius = 0;
    qint32 contentPadding = 0;

    bool operator==(const HwDisplay &other) const;
};

// The virtual hardware of one device. Sizes are in megabytes.
class HwProfile
{
    Q_GADGET
    Q_PROPERTY(QString uuid MEMBER uuid)
    Q_PROPERTY(QString brand MEMBER productBrand)
    Q_PROPERTY(QString model MEMBER productModel)
    Q_PROPERTY(FormFactor formFactor MEMBER formFactor)
    Q_PROPERTY(int cpuCount MEMBER cpuCount)
    Q_PROPERTY(int ramSize READ ramSizeMb WRITE setRamSizeMb)
    Q_PROPERTY(int dataDiskSize READ dataDiskSizeMb WRITE setDataDiskSizeMb)
    Q_PROPERTY(int sdCardDiskSize READ sdCardSizeMb WRITE setSdCardSizeMb)
    Q_PROPERTY(QString skin MEMBER skin)
    Q_PROPERTY(QSize primaryResolution READ primaryResolution)
    Q_PROPERTY(bool readOnly READ isReadOnly)
    Q_PROPERTY(int vmHeapSize READ vmHeapSizeMb)

public:
    enum class FormFactor : qint32 { PHONE = 0, TABLET = 1, WATCH = 2, CAR = 3, TV = 4 };
    Q_ENUM(FormFactor)
    enum class Source : qint32 { VENDOR = 0, SHARED = 1, USER = 2 };
    Q_ENUM(Source)
    enum class DisplayMode : qint32 { REGULAR = 0, FOLDABLE = 1, MULTI_DISPLAY = 2 };
    Q_ENUM(DisplayMode)

    // What an enumeration field holds when its name could not be read; not a member of any.
    static constexpr qint32 UnreadableEnum = -1234;

    QString uuid;
    Source source = Source::VENDOR;
    QString sharerEmail;
    FormFactor formFactor = FormFactor::PHONE;
    QString productModel;
    QString productBrand;
    QString productName;
    QString productManufacturer;
    QString productBoard;
    QString productDevice;
    QString buildDisplayId;
    QString buildType;
    QString buildFingerprint;
    QString buildTags;
    QString serialno;
    qint64 vmHeapSize = 256;
    qint32 cpuCount = 0;
    qint64 ramSize = 0;
    qint64 dataDiskSize = 0;
    qint64 sdCardSize = 0;
    DisplayMode displayMode = DisplayMode::REGULAR;
    bool hwNavigationKeys = false;
    QList<HwDisplay> displays{HwDisplay{}};
    QString skin;
    QString skinVariant;

    bool hasSdCard() const { return sdCardSize > 0; }
    bool isValid() const { return !uuid.isEmpty(); }

    // Size of the first screen; empty when the profile has none.
    QSize primaryResolution() const;
    // Only profiles the user made may be edited; vendor and shared ones are kept as given.
    bool isReadOnly() const { return source != Source::USER; }

    int ramSizeMb() const { return int(ramSize); }
    void setRamSizeMb(int size) { ramSize = size; }
    int dataDiskSizeMb() const { return int(dataDiskSize); }
    void setDataDiskSizeMb(int size) { dataDiskSize = size; }
    int sdCardSizeMb() const { return int(sdCardSize); }
    void setSdCardSizeMb(int size) { sdCardSize = size; }
    int vmHeapSizeMb() const { return int(vmHeapSize); }

    bool operator==(const HwProfile &other) const;
};

Q_DECLARE_METATYPE(HwProfile)

// A default profile (isValid() false) stands for "unsupported or faulty"; the reasons are logged.
HwProfile parseHwProfile(const QJsonObject &object);
QJsonObject serializeHwProfile(const HwProfile &profile);
