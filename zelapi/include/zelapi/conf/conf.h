// The configuration-file engine in one include: token rules (token.h),
// records and fields (field.h), the parse context (parse_context.h), cursors
// (dataset.h) and the cache with its tables (cache.h).
#pragma once

#include "zelapi/conf/cache.h"
#include "zelapi/conf/dataset.h"
#include "zelapi/conf/field.h"
#include "zelapi/conf/parse_context.h"
#include "zelapi/conf/token.h"
