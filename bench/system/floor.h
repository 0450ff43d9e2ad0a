#pragma once

/* The floors that the manager is measured against: plain, blocking C with no system call but the necessary
 * ones.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* Runs a program, reads its output and error output from one pipe to the end, and waits for its exit. Returns
 * the length of the output, or -1. */
long floor_launch(char* const argv[]);

/* The minimal line server on 127.0.0.1: one thread for each connection, which greets, then answers "OK" to
 * every line. Launches argv once before it accepts, unless that is null. Returns only when it fails. */
int floor_serve(unsigned short port, char* const argv[]);

/* Sends the first line to 127.0.0.1 over one conversation and, once it is answered, the others over so many
 * (at most 16), each of which takes the next line when it has its reply. 0; -1. */
int floor_ask(unsigned short port, const char* const lines[], int count, int conversations);

/* Whether the file contains the text: reads it whole and looks. */
int floor_find_in_file(const char* path, const char* text);

#ifdef __cplusplus
}
#endif
