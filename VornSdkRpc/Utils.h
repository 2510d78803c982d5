#pragma once

// Every utility of the library in one include.
#include <VornSdkRpc/Argv.h>
#include <VornSdkRpc/Conversions.h>
#include <VornSdkRpc/MessagePrinters.h>
#include <VornSdkRpc/Mutex.h>
#include <VornSdkRpc/ScopedNamespace.h>
