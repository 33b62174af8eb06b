#pragma once

#include "hwprofile.h"
#include "osimage.h"

#include <QElapsedTimer>
#include <QSize>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <functional>

// What a status query answers when there is something to report: a text and a number.
struct MachineStatusRecord
{
    QString text;
    int code = 0;
};

// One virtual device as the host sees it. The order of the virtual operations is part of
// the contract with the host applications and must never change; the number of each slot
// is given in the comment beside it. The base class implements the persistent part: the
// device directory layout, device.json, the configuration properties and the snapshot files.
class VMToolsMachine
{
public:
    enum OptionFlag : quint32 { VirtioFlag = 0x1 };
    enum State { StateUnknown, StateRunning, StatePoweredOff };  // 0, 1, 2

    explicit VMToolsMachine(const QString &path);

    virtual ~VMToolsMachine();                                             // 0
    virtual bool save();                                                   // 1
    virtual bool load();                                                   // 2
    virtual bool setup(const HwProfile &profile, const OsImage &image);    // 3
    virtual void prepareRunData() = 0;                                     // 4
    virtual bool reload() = 0;                                             // 5
    virtual void refreshRunData() = 0;                                     // 6
    virtual qint64 ramSize() const;                                        // 7
    virtual bool setRamSize(qint64 megabytes);                             // 8
    virtual qint64 vmHeapSize() const;                                     // 9
    virtual bool setVmHeapSize(qint64 megabytes);                          // 10
    virtual int bottomCornerRadius() const;                                // 11
    virtual bool setBottomCornerRadius(int radius);                        // 12
    virtual int topCornerRadius() const;                                   // 13
    virtual bool setTopCornerRadius(int radius);                           // 14
    virtual int contentPadding() const;                                    // 15
    virtual bool setContentPadding(int padding);                           // 16
    virtual QString glEsApiLevel() const;                                  // 17
    virtual bool setGlEsApiLevel(const QString &level);                    // 18
    virtual qint64 sdCardSize() const;                                     // 19
    virtual bool setSdCardSize(qint64 megabytes);                          // 20
    virtual bool isSdCardInserted() const;                                 // 21
    virtual bool setSdCardInserted(bool inserted);                         // 22
    virtual int cpuCount() const;                                          // 23
    virtual bool setCpuCount(int count);                                   // 24
    virtual QString name() const = 0;                                      // 25
    virtual bool rename(const QString &newName) = 0;                       // 26
    virtual QString uuid() const = 0;                                      // 27
    virtual bool setUuid(const QString &uuid) = 0;                         // 28
    virtual qint64 sizeOnDisk();                                           // 29
    virtual QString ipAddressAsync(std::function<void(const QString &)> callback) = 0; // 30
    virtual int status() = 0;                                              // 31
    virtual int state() const;                                             // 32
    virtual QString skin() const;                                          // 33
    virtual bool setSkin(const QString &skin);                             // 34
    virtual QString sharerEmail() const;                                   // 35
    virtual bool setSharerEmail(const QString &email);                     // 36
    virtual QString skinVariant() const;                                   // 37
    virtual bool setSkinVariant(const QString &variant);                   // 38
    virtual QString formFactorCode() const;                                // 39
    virtual bool isHardwareEditable() const;                               // 40
    virtual int displayDensity() const;                                    // 41
    virtual bool setDisplayDensity(int density);                           // 42
    virtual QSize displaySize() const;                                     // 43
    virtual HwProfile::DisplayMode displayMode() const;                    // 44
    virtual bool setDisplaySize(const QSize &size);                        // 45
    virtual QList<HwDisplay> displays() const;                             // 46
    virtual double displayPhysicalSize() const;                            // 47
    virtual HwProfile hardwareProfile() const;                             // 48
    virtual bool setHwProfileUuid(const QString &uuid);                    // 49
    virtual QString hwProfileUuid() const;                                 // 50
    virtual bool setOsImageName(const QString &name);                      // 51
    virtual OsImage osImage() const;                                       // 52
    virtual QString osImageName() const;                                   // 53
    virtual bool setDataDiskSize(qint64 megabytes);                        // 54
    virtual qint64 dataDiskSize() const;                                   // 55
    virtual QString osImageDate() const;                                   // 56
    virtual bool setFirstDisplay(const HwDisplay &display);                // 57
    virtual bool isFullscreen() const;                                     // 58
    virtual bool setFullscreen(bool fullscreen);                           // 59
    virtual bool usesSoftwareNavigationKeys() const;                       // 60
    virtual HwProfile::Source profileSource() const;                       // 61
    virtual bool isVirtualKeyboardEnabled() const;                         // 62
    virtual bool setVirtualKeyboardEnabled(bool enabled);                  // 63
    virtual QString ipAddress() const = 0;                                 // 64
    virtual QString adbSerial() const = 0;                                 // 65
    virtual quint16 adbPort() const;                                       // 66
    virtual quint16 forwardedPort1() const;                                // 67
    virtual quint16 forwardedPort2() const;                                // 68
    virtual quint16 forwardedPort3() const;                                // 69
    virtual quint16 forwardedPort4() const;                                // 70
    virtual quint16 forwardedPort5() const;                                // 71
    virtual quint16 forwardedPort6() const;                                // 72
    virtual quint16 forwardedPort7() const;                                // 73
    virtual bool supportsHotResize() const = 0;                            // 74
    virtual bool supportsPause() const = 0;                                // 75
    virtual bool supportsSdCard() const = 0;                               // 76
    virtual int factoryReset() = 0;                                        // 77
    virtual QVariant configurationValue(const QString &key, const QVariant &defaultValue = QVariant()) const; // 78
    virtual bool setConfigurationValue(const QString &key, const QVariant &value); // 79
    virtual bool createSystemDisk(const OsImage &image) = 0;               // 80
    virtual QString productName() const;                                   // 81
    virtual bool setProductName(const QString &value);                     // 82
    virtual HwProfile::FormFactor formFactor() const;                      // 83
    virtual bool setFormFactor(HwProfile::FormFactor formFactor);          // 84
    virtual QString productModel() const;                                  // 85
    virtual bool setProductModel(const QString &value);                    // 86
    virtual QString productManufacturer() const;                           // 87
    virtual bool setProductManufacturer(const QString &value);             // 88
    virtual QString productBrand() const;                                  // 89
    virtual bool setProductBrand(const QString &value);                    // 90
    virtual QString productBoard() const;                                  // 91
    virtual bool setProductBoard(const QString &value);                    // 92
    virtual QString buildDisplayId() const;                                // 93
    virtual bool setBuildDisplayId(const QString &value);                  // 94
    virtual QString productDevice() const;                                 // 95
    virtual bool setProductDevice(const QString &value);                   // 96
    virtual bool setSerialno(const QString &value);                        // 97
    virtual QString serialno() const;                                      // 98
    virtual bool setBuildType(const QString &value);                       // 99
    virtual QString buildType() const;                                     // 100
    virtual bool setBuildFingerprint(const QString &value);                // 101
    virtual QString buildFingerprint() const;                              // 102
    virtual bool setBuildTags(const QString &value);                       // 103
    virtual QString buildTags() const;                                     // 104
    virtual bool setQuickbootEnabled(bool enabled);                        // 105
    virtual bool isQuickbootEnabled() const;                               // 106
    virtual bool hasSnapshot() const;                                      // 107
    virtual void setHasSnapshot(bool hasSnapshot);                         // 108
    virtual MachineStatusRecord lastStartError() const = 0;                // 109
    virtual MachineStatusRecord lastRuntimeError() const = 0;              // 110
    virtual bool supportsFactoryReset() const = 0;                         // 111

    // Not virtual: helpers shared by the engine.
    QString path() const { return m_path; }
    QString deviceJsonPath() const;
    QString snapshotFilePath() const;
    QString snapshotExtraFilePath() const;
    bool deleteSnapshotFiles() const;
    // Bit 0 (VirtioFlag) is set when the image's version is above 8.0.0.
    quint32 optionFlags() const;
    bool usesVirtio() const { return optionFlags() & VirtioFlag; }
    qint64 uptimeMs() const;  // -1 until a start succeeded

protected:
    // Stores a configuration value and saves, answering the save's result.
    bool storeConfiguration(const QString &key, const QVariant &value);
    // Applies a change to the profile and saves, answering the save's result.
    bool changeProfile(const std::function<void(HwProfile &)> &change);
    // Same for the first display; true and no save when the profile has no display.
    bool changeFirstDisplay(const std::function<void(HwDisplay &)> &change);

    QString m_path;
    int m_state = StateUnknown;
    HwProfile m_hardwareProfile;
    QVariantMap m_configuration;
    QVariantMap m_extra;
    qint64 m_sizeOnDisk = -1;
    OsImage m_osImage;
    bool m_hasSnapshot = false;
    QElapsedTimer m_runTimer;
};
