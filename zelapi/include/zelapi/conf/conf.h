// The configuration-file engine in one include: token rules (token.h),
// records and fields (record.h), the parse context (parse.h), cursors
// (dataset.h) and the cache with its tables (cache.h).
#pragma once

#include "zelapi/conf/cache.h"
#include "zelapi/conf/dataset.h"
#include "zelapi/conf/parse.h"
#include "zelapi/conf/record.h"
#include "zelapi/conf/token.h"
