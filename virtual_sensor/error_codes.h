// The driver's own result codes and their texts (GetErrInfo).
#pragma once

#include <string>

namespace virtual_sensor {

enum ErrorCode : int {
    kOk = 0,
    kPending = 1,  // Invoke: accepted, the result follows by callback
    kBadInstance = 2,
    kBadArgument = 3,
    kUnknownAttribute = 4,
    kUnknownCommand = 5,
    kReadOnlyAttribute = 7,
    kWrongValueType = 8,
    kBadConfiguration = 10,
    kOutOfResources = 11,
    kStopped = 12,  // the instance is being destroyed
    kTimedOut = 22,
};

// The text for any code; never empty.
std::string ErrorText(int code);

// The text of the last rejected configuration, given by ErrorText(kBadConfiguration).
void SetConfigurationProblem(const std::string& problem);

}  // namespace virtual_sensor
