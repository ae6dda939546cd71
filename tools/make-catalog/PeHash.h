// The Authenticode digest of a PE image, as "Windows Authenticode Portable
// Executable Signature Format" (Calculating the PE Image Hash) defines it:
// the headers without the CheckSum field and the Certificate Table entry,
// then every section's raw data in file order, then whatever follows the
// sections except the certificate table at the end of the file.
#pragma once

#include <openssl/evp.h>

#include <cstdint>
#include <string>
#include <vector>

namespace mkcat {

// True when the bytes are a PE image (MZ header and PE signature).
bool isPeImage(const std::vector<uint8_t>& file);

// The image digest with md; false with *error set when the headers,
// sections or certificate table do not fit the file.
bool peImageDigest(const std::vector<uint8_t>& file, const EVP_MD* md, std::vector<uint8_t>* digest,
                   std::string* error);

// A plain digest of all the bytes (what a catalog holds for a flat file).
std::vector<uint8_t> flatDigest(const std::vector<uint8_t>& file, const EVP_MD* md);

} // namespace mkcat
