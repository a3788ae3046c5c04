// Umbrella header of libjitreader.
#pragma once

#include "basekit2/generic_iterator.h"
#include "jitreader/assembly_reader.h"
#include "jitreader/base_object.h"
#include "jitreader/error.h"
#include "jitreader/jit_loader.h"
#include "jitreader/jit_processes.h"
#include "jitreader/load_progress.h"
#include "jitreader/symbol.h"
#include "jitreader/symbol_resolver.h"
