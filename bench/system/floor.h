#pragma once

/* The floors that the manager is measured against: plain C, blocking, nothing but the necessary system calls.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* Runs a program with its merged output in a pipe, reads that to its end and waits. The output's length; -1.
 */
long floor_launch(char* const argv[]);

/* The minimal line server on 127.0.0.1: one thread for each connection, which greets, then answers "OK" to
 * every line. Launches argv once before it accepts, unless that is null. Returns only when it fails. */
int floor_serve(unsigned short port, char* const argv[]);

/* Whether the file contains the text: reads it whole and looks. */
int floor_find_in_file(const char* path, const char* text);

#ifdef __cplusplus
}
#endif
