#pragma once

/// The device's system library: settings files, services, programs.
/// Arguments described as "always 0" belong to the library; its callers here have no other use of them.
extern "C" {

/// Reads `key` of the key="value" file `path` into `buffer` as NUL-terminated text, cut to fit `size` bytes.
/// `flags` is always 0. Returns 1 or more when the value was stored, less when the key is missing or the
/// file cannot be read; the buffer is then untouched.
int VLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, int size, int flags);

/// Sets `key` in the system settings file "/etc/vexainfo.conf". Returns a negative number on failure.
int VLIBCINFOSetKeyValue(const char* key, const char* value);

/// Returns 1 when the service is running.
int VLIBServiceIsRunning(const char* service);

/// Returns 1 when the service is switched on as a service, running or not.
int VLIBServiceIsEnabled(const char* service);

/// Enables and starts a service. `flags` is always 0. Returns 0 on success.
int VLIBServiceStart(const char* service, int flags);

/// Stops and disables a service. `flags` is always 0. Returns 0 on success.
int VLIBServiceStop(const char* service, int flags);

/// Has a running service read its configuration again. Returns 0 on success.
int VLIBServiceReload(const char* service);

/// Runs `program` with the following `const char*` arguments, ended by a null pointer.
/// `flags` is an option word of the library. Returns a negative number when the program could not be run.
int VLIBCExecl(const char* program, unsigned int flags, ...);
}
