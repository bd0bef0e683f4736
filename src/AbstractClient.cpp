// SPDX-License-Identifier: MIT
#include "AbstractClient.h"

// Here, so that only the library holds the class's virtual table.
AbstractClient::~AbstractClient() = default;
