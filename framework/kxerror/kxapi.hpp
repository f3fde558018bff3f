#pragma once

/// Marks what a framework library exports; everything else stays hidden (-fvisibility=hidden).
#define KX_API __attribute__((visibility("default")))
