/// @file
/// Export mark of libtcp_com: everything without it stays hidden in the shared library.
#pragma once

#define TCP_COM_API __attribute__((visibility("default")))
