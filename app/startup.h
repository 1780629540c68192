// What a start looks at before it touches anything: whether another daemon answers on its sockets, and,
// before it detaches and can no longer tell its caller, whether what it will write can be written.
#pragma once

// 0; -1 when a process answers on one of the configured sockets (logged with the path and its process id), or
// something else than a socket that nobody answers lies there.
int check_sockets();

// Makes the configured paths absolute, and those of later reloads: `dir` is where the start took place. 0; -1
// (logged) when one does not fit its field.
int pin_paths(const char *dir);

// Whether the daemon's user will be able to write the log, the pid file, the playlists and the sockets, and
// may run on the configured processor; looked at by a child process that becomes that user. 0 or -1 (logged).
int check_as_daemon();
