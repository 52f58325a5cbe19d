// SPDX-License-Identifier: Apache-2.0
//
// Tells the service manager that started the process how it stands. Where none did (NOTIFY_SOCKET is
// not set) nothing happens.
#ifndef PLATFORM_SERVICE_NOTIFY_H
#define PLATFORM_SERVICE_NOTIFY_H

#include <string>

namespace service {

// It serves. `status` is a line for whoever looks at the service; control characters are taken out.
void notify_ready(const std::string& status);

// It was asked to end, and does.
void notify_stopping();

}  // namespace service
#endif
