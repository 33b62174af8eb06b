#pragma once

// Process exit codes of qvctl. 4 to 9 are the engine's start results, passed through so
// that scripts can tell why a device did not start.
namespace ExitCode {
enum : int {
    Success = 0,
    Failure = 1,
    BadUsage = 2,
    UnknownDevice = 3,
    AccelerationUnusable = 4,
    DeviceBusy = 5,
    SystemFileInUse = 6,
    PortInUse = 7,
    ArchNotSupported = 8,
    MemoryNotSupported = 9,
};
}
