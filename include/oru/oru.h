// Umbrella header: includes every public header of liboru.
//
//   #include <oru/oru.h>
//
// Everything lives in namespace oru. See README.md for an overview and
// docs/ARCHITECTURE.md for how the pieces fit together.
#pragma once

#include "oru/export.h"
#include "oru/make_shared_enabler.h"
#include "oru/string_span.h"
#include "oru/toolchain.h"

#include "oru/compressed_data_source.h"
#include "oru/data_source.h"
#include "oru/data_stream.h"
#include "oru/file_data_source.h"
#include "oru/line_reader.h"
#include "oru/sparse_data_source.h"

#include "oru/zip_data_stream.h"
#include "oru/zip_writer.h"
#include "oru/zipper.h"

#include "oru/file_spec.h"
#include "oru/file_system.h"
#include "oru/shared_lib.h"
#include "oru/url.h"

#include "oru/data_cache.h"

#include "oru/performance_counter.h"
#include "oru/remote_call.h"
#include "oru/task.h"

#include "oru/encoding.h"
#include "oru/json_formatter.h"
#include "oru/sha1.h"
#include "oru/simplified_regex.h"
#include "oru/symbol.h"

#include "oru/api_trace.h"
#include "oru/debugging_console.h"
#include "oru/heap_trace.h"
#include "oru/memory.h"
#include "oru/stack_walker.h"
#include "oru/static_container.h"

#include "oru/flag_set.h"
#include "oru/user_data.h"
