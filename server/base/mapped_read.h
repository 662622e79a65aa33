// Reading a memory-mapped file that someone else may shrink. On the device the kernel module
// backs its statistics files for good, but on a host they are ordinary files, and a read
// past the end of a file that was truncated under its mapping raises SIGBUS. Inside
// readMappedFile that signal ends the read instead of the process.
#pragma once

namespace vekt {

// Runs read(context) and returns true, or false when it touched a page of a mapped file
// that no longer exists. read must hold no lock and own nothing that needs destroying: on a
// fault it is left by a jump. Values it wrote before the fault are unreliable.
bool readMappedFileRaw(void (*read)(void*), void* context);

template <typename Read>
bool readMappedFile(Read&& read) {
    return readMappedFileRaw([](void* context) { (*static_cast<Read*>(context))(); }, &read);
}

}  // namespace vekt
