// SPDX-License-Identifier: MIT
#include "AbstractClient.h"

// Here, so that the library alone holds the class's virtual table.
AbstractClient::~AbstractClient() = default;
