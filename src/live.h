// Reloads that change what differs and touch nothing else: `live_reload` of the configuration.
//
//  what                              is done by
//  a file is read, its patterns      a thread of its own, apart from the tables
//  compiled
//  it is applied: rules and lines    the main thread, in one rewriting of the tables
//  a line is moved, or dismissed     its thread, when it is not acting
//  a host is found by its name       a thread of its own (lookup.h); the line goes on as it was, and one
//                                    that is new waits
//  a new line is served              the main thread, once its host is found and a slot is free
//  a line that is gone gives up      the main thread, after its thread has ended (roster.h)
//  its slot
//
// For the main thread.
#pragma once

// Begins to load the file at `path`. While an earlier load is read, the next begins after it.
void live_load(const char *path) noexcept;

// Does what can be done by now. Returns whether the tables have changed.
bool live_update() noexcept;

// Waits for a second, and while loads are live until there is something to do.
void live_pause() noexcept;

// Ends what live loads have begun: the file is loaded in the other way now.
void live_forget() noexcept;

// After such a load: every slot of the file's lines has a thread, and no other, if live loads have ever changed
// that.
void live_serve_all() noexcept;
