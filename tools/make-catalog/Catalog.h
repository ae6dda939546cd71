// A driver package's catalog, unsigned: PKCS #7 SignedData (no signer yet)
// whose content is a certificate trust list (CTL_INFO, szOID_CTL) of the
// catalog's members. Each file is listed twice, by its SHA-1 and by its
// SHA-256 digest, as Inf2Cat lists the files of a Windows 10 package; a
// member's subject is its digest in upper-case hex (UTF-16LE, NUL ended)
// and its attributes are the documented ones of wintrust.h and mscat.h:
// File and OSAttr name-values (CAT_NAMEVALUE), the subject type
// (CAT_MEMBERINFO) and the digest itself (SPC_INDIRECT_DATA_CONTENT, a PE
// image's Authenticode digest or a flat file's plain one). osslsigncode signs
// the result.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace mkcat {

struct Member {
    std::string name; // the File attribute: the name in the package
    bool peImage = false;
    std::vector<uint8_t> sha1;
    std::vector<uint8_t> sha256;
};

struct CatalogInfo {
    std::vector<Member> members;
    std::string osAttr;                                     // per member, e.g. "2:10.0"
    std::vector<std::pair<std::string, std::string>> attrs; // catalog name-values (OS, HWID1...)
    std::time_t thisUpdate = 0;
};

// The DER of the unsigned catalog; empty with *error on an encoding failure.
std::vector<uint8_t> encodeCatalog(const CatalogInfo& info, std::string* error);

// Reads back what encodeCatalog wrote: the member subjects, in order.
// False with *error when the bytes are not such a catalog.
bool catalogSubjects(const std::vector<uint8_t>& der, std::vector<std::vector<uint8_t>>* subjects,
                     std::string* error);

} // namespace mkcat
