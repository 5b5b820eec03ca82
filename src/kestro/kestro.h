#pragma once

// Everything a host application needs: the facade, the logging calls and the record types.
#include "kestro/core/config.h"
#include "kestro/export/curl.h"
#include "kestro/export/har.h"
#include "kestro/facade/kestro_internal.h"
#include "kestro/logging/kestro_logger.h"
#include "kestro/logging/print_interceptor.h"
#include "kestro/records/records.h"
