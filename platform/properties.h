#ifndef MORVOCAT_PLATFORM_PROPERTIES_H_
#define MORVOCAT_PLATFORM_PROPERTIES_H_

// System properties, kept in one small file (under the root prefix) that
// several processes share. A write replaces the file by rename under a lock,
// so a reader always sees either the old or the new set, never half of one.

#define PROPERTY_KEY_MAX 32
#define PROPERTY_VALUE_MAX 92

extern "C" {

// Device path of the store; MORVOCAT_PROPERTIES overrides the whole path.
#define MORVO_PROPERTY_FILE "/data/property/morvo_properties"
#define MORVO_PROPERTY_FILE_ENV "MORVOCAT_PROPERTIES"

// Copies the value of key (or default_value when it is not set) into value,
// which holds PROPERTY_VALUE_MAX bytes. Returns the length copied.
int property_get(const char* key, char* value, const char* default_value);
// Returns 0, or -1 when the key or value is too long or the store cannot be
// written.
int property_set(const char* key, const char* value);

}  // extern "C"

#endif  // MORVOCAT_PLATFORM_PROPERTIES_H_
