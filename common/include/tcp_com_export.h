/// @file
/// Export mark of libtcp_com: everything without it stays hidden in the shared library.
#pragma once

#define TCP_COM_API __attribute__((visibility("default")))

/// For types nested in exported classes, which would otherwise inherit their visibility.
#define TCP_COM_HIDDEN __attribute__((visibility("hidden")))
