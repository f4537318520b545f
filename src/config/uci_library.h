// The configuration store's library, for the files of this folder only.
#pragma once

#include <stddef.h>

extern "C" {
#include <uci.h>
}
