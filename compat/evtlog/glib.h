/* For a libevtlog without GLib: all that evtlog.h takes from there. The library itself needs nothing of it. */
#pragma once

#define G_GNUC_PRINTF(format_at, first_at) __attribute__((format(printf, format_at, first_at)))
