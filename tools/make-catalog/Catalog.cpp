// The structures below are those of wincrypt.h, wintrust.h and mscat.h as
// their documentation gives them (CTL_INFO, CTL_ENTRY, CAT_NAMEVALUE,
// CAT_MEMBERINFO, SPC_INDIRECT_DATA_CONTENT, SPC_PE_IMAGE_DATA, SPC_LINK),
// written out with OpenSSL's ASN.1 templates.
#include "Catalog.h"

#include <openssl/asn1t.h>
#include <openssl/objects.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace mkcat {

const char* const kOidCtl = "1.3.6.1.4.1.311.10.1";             // szOID_CTL
const char* const kOidCatalogList = "1.3.6.1.4.1.311.12.1.1";   // szOID_CATALOG_LIST
const char* const kOidCatalogMember = "1.3.6.1.4.1.311.12.1.2"; // szOID_CATALOG_LIST_MEMBER
const char* const kOidNameValue = "1.3.6.1.4.1.311.12.2.1";     // CAT_NAMEVALUE_OBJID
const char* const kOidMemberInfo = "1.3.6.1.4.1.311.12.2.2";    // CAT_MEMBERINFO_OBJID
const char* const kOidIndirectData = "1.3.6.1.4.1.311.2.1.4";   // SPC_INDIRECT_DATA_OBJID
const char* const kOidPeImageData = "1.3.6.1.4.1.311.2.1.15";   // SPC_PE_IMAGE_DATA_OBJID
const char* const kOidCabData = "1.3.6.1.4.1.311.2.1.25";       // SPC_CAB_DATA_OBJID (flat files)
// Subject interface packages (mssip.h): the PE image and the flat file SIP.
const char* const kSubjectPe = "{C689AAB8-8E78-11D0-8C47-00C04FC295EE}";
const char* const kSubjectFlat = "{DE351A42-8E59-11D0-8C47-00C04FC295EE}";
// CRYPTCAT_ATTR_AUTHENTICATED | CRYPTCAT_ATTR_DATAASCII | CRYPTCAT_ATTR_NAMEASCII
const long kAttrFlags = 0x10010001;
// CAT_MEMBERINFO.dwCertVersion as the catalog tools write it.
const long kMemberCertVersion = 0x200;

// clang-format off
struct CatNameValue {
    ASN1_BMPSTRING* tag;
    ASN1_INTEGER* flags;
    ASN1_OCTET_STRING* value;
};
ASN1_SEQUENCE(CatNameValue) = {
    ASN1_SIMPLE(CatNameValue, tag, ASN1_BMPSTRING),
    ASN1_SIMPLE(CatNameValue, flags, ASN1_INTEGER),
    ASN1_SIMPLE(CatNameValue, value, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(CatNameValue)
IMPLEMENT_ASN1_FUNCTIONS(CatNameValue)

struct CatMemberInfo {
    ASN1_BMPSTRING* subjectGuid;
    ASN1_INTEGER* certVersion;
};
ASN1_SEQUENCE(CatMemberInfo) = {
    ASN1_SIMPLE(CatMemberInfo, subjectGuid, ASN1_BMPSTRING),
    ASN1_SIMPLE(CatMemberInfo, certVersion, ASN1_INTEGER),
} ASN1_SEQUENCE_END(CatMemberInfo)
IMPLEMENT_ASN1_FUNCTIONS(CatMemberInfo)

struct SpcString {
    int type;
    union {
        ASN1_BMPSTRING* unicode;
        ASN1_IA5STRING* ascii;
    } value;
};
ASN1_CHOICE(SpcString) = {
    ASN1_IMP(SpcString, value.unicode, ASN1_BMPSTRING, 0),
    ASN1_IMP(SpcString, value.ascii, ASN1_IA5STRING, 1),
} ASN1_CHOICE_END(SpcString)
IMPLEMENT_ASN1_FUNCTIONS(SpcString)

// SpcLink without its moniker choice [1], which a catalog never needs.
struct SpcLink {
    int type;
    union {
        ASN1_IA5STRING* url;
        SpcString* file;
    } value;
};
ASN1_CHOICE(SpcLink) = {
    ASN1_IMP(SpcLink, value.url, ASN1_IA5STRING, 0),
    ASN1_EXP(SpcLink, value.file, SpcString, 2),
} ASN1_CHOICE_END(SpcLink)
IMPLEMENT_ASN1_FUNCTIONS(SpcLink)

struct SpcPeImageData {
    ASN1_BIT_STRING* flags;
    SpcLink* file;
};
ASN1_SEQUENCE(SpcPeImageData) = {
    ASN1_SIMPLE(SpcPeImageData, flags, ASN1_BIT_STRING),
    ASN1_EXP_OPT(SpcPeImageData, file, SpcLink, 0),
} ASN1_SEQUENCE_END(SpcPeImageData)
IMPLEMENT_ASN1_FUNCTIONS(SpcPeImageData)

struct SpcTypeValue {
    ASN1_OBJECT* type;
    ASN1_TYPE* value;
};
ASN1_SEQUENCE(SpcTypeValue) = {
    ASN1_SIMPLE(SpcTypeValue, type, ASN1_OBJECT),
    ASN1_OPT(SpcTypeValue, value, ASN1_ANY),
} ASN1_SEQUENCE_END(SpcTypeValue)
IMPLEMENT_ASN1_FUNCTIONS(SpcTypeValue)

struct DigestInfo {
    X509_ALGOR* algorithm;
    ASN1_OCTET_STRING* digest;
};
ASN1_SEQUENCE(DigestInfo) = {
    ASN1_SIMPLE(DigestInfo, algorithm, X509_ALGOR),
    ASN1_SIMPLE(DigestInfo, digest, ASN1_OCTET_STRING),
} ASN1_SEQUENCE_END(DigestInfo)
IMPLEMENT_ASN1_FUNCTIONS(DigestInfo)

struct SpcIndirectData {
    SpcTypeValue* data;
    DigestInfo* messageDigest;
};
ASN1_SEQUENCE(SpcIndirectData) = {
    ASN1_SIMPLE(SpcIndirectData, data, SpcTypeValue),
    ASN1_SIMPLE(SpcIndirectData, messageDigest, DigestInfo),
} ASN1_SEQUENCE_END(SpcIndirectData)
IMPLEMENT_ASN1_FUNCTIONS(SpcIndirectData)

// CRYPT_ATTRIBUTE: an OID and a set of values, here each one DER of its own.
struct CatAttribute {
    ASN1_OBJECT* type;
    STACK_OF(ASN1_TYPE)* values;
};
ASN1_SEQUENCE(CatAttribute) = {
    ASN1_SIMPLE(CatAttribute, type, ASN1_OBJECT),
    ASN1_SET_OF(CatAttribute, values, ASN1_ANY),
} ASN1_SEQUENCE_END(CatAttribute)
IMPLEMENT_ASN1_FUNCTIONS(CatAttribute)
DEFINE_STACK_OF(CatAttribute)

// CTL_ENTRY
struct TrustedSubject {
    ASN1_OCTET_STRING* subject;
    STACK_OF(CatAttribute)* attributes;
};
ASN1_SEQUENCE(TrustedSubject) = {
    ASN1_SIMPLE(TrustedSubject, subject, ASN1_OCTET_STRING),
    ASN1_SET_OF_OPT(TrustedSubject, attributes, CatAttribute),
} ASN1_SEQUENCE_END(TrustedSubject)
IMPLEMENT_ASN1_FUNCTIONS(TrustedSubject)
DEFINE_STACK_OF(TrustedSubject)

// CTL_INFO, version v1 left out as its DEFAULT, no sequence number and no
// next update.
struct TrustList {
    STACK_OF(ASN1_OBJECT)* subjectUsage;
    ASN1_OCTET_STRING* listIdentifier;
    ASN1_UTCTIME* thisUpdate;
    X509_ALGOR* subjectAlgorithm;
    STACK_OF(TrustedSubject)* subjects;
    STACK_OF(X509_EXTENSION)* extensions;
};
ASN1_SEQUENCE(TrustList) = {
    ASN1_SEQUENCE_OF(TrustList, subjectUsage, ASN1_OBJECT),
    ASN1_OPT(TrustList, listIdentifier, ASN1_OCTET_STRING),
    ASN1_SIMPLE(TrustList, thisUpdate, ASN1_UTCTIME),
    ASN1_SIMPLE(TrustList, subjectAlgorithm, X509_ALGOR),
    ASN1_SEQUENCE_OF_OPT(TrustList, subjects, TrustedSubject),
    ASN1_EXP_SEQUENCE_OF_OPT(TrustList, extensions, X509_EXTENSION, 0),
} ASN1_SEQUENCE_END(TrustList)
IMPLEMENT_ASN1_FUNCTIONS(TrustList);
// clang-format on

namespace {

template <typename T, void (*Free)(T*)> struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using TrustListPtr = std::unique_ptr<TrustList, Deleter<TrustList, TrustList_free>>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Deleter<PKCS7, PKCS7_free>>;

std::vector<uint8_t> encode(const void* value, const ASN1_ITEM* item) {
    unsigned char* out = nullptr;
    const int length = ASN1_item_i2d(static_cast<const ASN1_VALUE*>(value), &out, item);
    std::vector<uint8_t> der;
    if (length > 0)
        der.assign(out, out + length);
    OPENSSL_free(out);
    return der;
}

// An ASN1_TYPE that writes der as it is.
ASN1_TYPE* anyOf(const std::vector<uint8_t>& der) {
    ASN1_STRING* s = ASN1_STRING_new();
    ASN1_STRING_set(s, der.data(), int(der.size()));
    ASN1_TYPE* t = ASN1_TYPE_new();
    ASN1_TYPE_set(t, V_ASN1_SEQUENCE, s);
    return t;
}

std::vector<uint8_t> utf16(const std::string& ascii, bool bigEndian, bool terminate) {
    std::vector<uint8_t> out;
    for (unsigned char c : ascii) {
        out.push_back(bigEndian ? 0 : c);
        out.push_back(bigEndian ? c : 0);
    }
    if (terminate)
        out.insert(out.end(), {0, 0});
    return out;
}

void setBmp(ASN1_BMPSTRING* s, const std::string& ascii) {
    const std::vector<uint8_t> be = utf16(ascii, true, false);
    ASN1_STRING_set(s, be.data(), int(be.size()));
}

ASN1_OBJECT* oid(const char* text) {
    return OBJ_txt2obj(text, 1);
}

CatAttribute* attribute(const char* type, const std::vector<uint8_t>& valueDer) {
    CatAttribute* a = CatAttribute_new();
    ASN1_OBJECT_free(a->type);
    a->type = oid(type);
    sk_ASN1_TYPE_push(a->values, anyOf(valueDer));
    return a;
}

std::vector<uint8_t> nameValue(const std::string& tag, const std::string& value) {
    std::unique_ptr<CatNameValue, Deleter<CatNameValue, CatNameValue_free>> nv(CatNameValue_new());
    setBmp(nv->tag, tag);
    ASN1_INTEGER_set(nv->flags, kAttrFlags);
    const std::vector<uint8_t> le = utf16(value, false, true);
    ASN1_OCTET_STRING_set(nv->value, le.data(), int(le.size()));
    return encode(nv.get(), ASN1_ITEM_rptr(CatNameValue));
}

std::vector<uint8_t> memberInfo(bool peImage) {
    std::unique_ptr<CatMemberInfo, Deleter<CatMemberInfo, CatMemberInfo_free>> mi(
        CatMemberInfo_new());
    setBmp(mi->subjectGuid, peImage ? kSubjectPe : kSubjectFlat);
    ASN1_INTEGER_set(mi->certVersion, kMemberCertVersion);
    return encode(mi.get(), ASN1_ITEM_rptr(CatMemberInfo));
}

// SPC_LINK naming no file: "<<<Obsolete>>>", as Authenticode writes it.
SpcLink* obsoleteLink() {
    SpcLink* link = SpcLink_new();
    link->type = 1;
    link->value.file = SpcString_new();
    link->value.file->type = 0;
    link->value.file->value.unicode = ASN1_BMPSTRING_new();
    setBmp(link->value.file->value.unicode, "<<<Obsolete>>>");
    return link;
}

std::vector<uint8_t> indirectData(bool peImage, int digestNid, const std::vector<uint8_t>& digest) {
    std::unique_ptr<SpcIndirectData, Deleter<SpcIndirectData, SpcIndirectData_free>> idc(
        SpcIndirectData_new());
    ASN1_OBJECT_free(idc->data->type);
    if (peImage) {
        std::unique_ptr<SpcPeImageData, Deleter<SpcPeImageData, SpcPeImageData_free>> pe(
            SpcPeImageData_new());
        pe->file = obsoleteLink();
        idc->data->type = oid(kOidPeImageData);
        idc->data->value = anyOf(encode(pe.get(), ASN1_ITEM_rptr(SpcPeImageData)));
    } else {
        std::unique_ptr<SpcLink, Deleter<SpcLink, SpcLink_free>> link(obsoleteLink());
        idc->data->type = oid(kOidCabData);
        idc->data->value = anyOf(encode(link.get(), ASN1_ITEM_rptr(SpcLink)));
    }
    X509_ALGOR_set0(idc->messageDigest->algorithm, OBJ_nid2obj(digestNid), V_ASN1_NULL, nullptr);
    ASN1_OCTET_STRING_set(idc->messageDigest->digest, digest.data(), int(digest.size()));
    return encode(idc.get(), ASN1_ITEM_rptr(SpcIndirectData));
}

std::string upperHex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    for (uint8_t b : bytes) {
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

struct Entry {
    std::vector<uint8_t> subject;
    TrustedSubject* value;
};

Entry entry(const Member& m, const std::string& osAttr, int digestNid,
            const std::vector<uint8_t>& digest) {
    TrustedSubject* ts = TrustedSubject_new();
    const std::vector<uint8_t> subject = utf16(upperHex(digest), false, true);
    ASN1_OCTET_STRING_set(ts->subject, subject.data(), int(subject.size()));
    ts->attributes = sk_CatAttribute_new_null();
    sk_CatAttribute_push(ts->attributes, attribute(kOidNameValue, nameValue("File", m.name)));
    sk_CatAttribute_push(ts->attributes, attribute(kOidNameValue, nameValue("OSAttr", osAttr)));
    sk_CatAttribute_push(ts->attributes, attribute(kOidMemberInfo, memberInfo(m.peImage)));
    sk_CatAttribute_push(ts->attributes,
                         attribute(kOidIndirectData, indirectData(m.peImage, digestNid, digest)));
    return Entry{subject, ts};
}

} // namespace

std::vector<uint8_t> encodeCatalog(const CatalogInfo& info, std::string* error) {
    TrustListPtr ctl(TrustList_new());
    sk_ASN1_OBJECT_push(ctl->subjectUsage, oid(kOidCatalogList));
    // The list identifier only has to tell catalogs apart: the first bytes
    // of a digest over the members' digests.
    std::vector<uint8_t> all;
    for (const Member& m : info.members)
        all.insert(all.end(), m.sha256.begin(), m.sha256.end());
    unsigned char id[EVP_MAX_MD_SIZE];
    unsigned int idLength = 0;
    EVP_Digest(all.data(), all.size(), id, &idLength, EVP_sha256(), nullptr);
    ctl->listIdentifier = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(ctl->listIdentifier, id, 16);
    ASN1_UTCTIME_set(ctl->thisUpdate, info.thisUpdate);
    X509_ALGOR_set0(ctl->subjectAlgorithm, oid(kOidCatalogMember), V_ASN1_NULL, nullptr);

    std::vector<Entry> entries;
    for (const Member& m : info.members) {
        entries.push_back(entry(m, info.osAttr, NID_sha1, m.sha1));
        entries.push_back(entry(m, info.osAttr, NID_sha256, m.sha256));
    }
    // Sorted by subject, so one package always gives the same bytes.
    std::sort(entries.begin(), entries.end(),
              [](const Entry& a, const Entry& b) { return a.subject < b.subject; });
    ctl->subjects = sk_TrustedSubject_new_null();
    for (const Entry& e : entries)
        sk_TrustedSubject_push(ctl->subjects, e.value);

    ctl->extensions = sk_X509_EXTENSION_new_null();
    for (const auto& [name, value] : info.attrs) {
        const std::vector<uint8_t> der = nameValue(name, value);
        ASN1_OCTET_STRING* data = ASN1_OCTET_STRING_new();
        ASN1_OCTET_STRING_set(data, der.data(), int(der.size()));
        ASN1_OBJECT* type = oid(kOidNameValue);
        sk_X509_EXTENSION_push(ctl->extensions,
                               X509_EXTENSION_create_by_OBJ(nullptr, type, 0, data));
        ASN1_OBJECT_free(type);
        ASN1_OCTET_STRING_free(data);
    }
    const std::vector<uint8_t> ctlDer = encode(ctl.get(), ASN1_ITEM_rptr(TrustList));

    // SignedData, version 1, with the CTL as its content and no signer.
    Pkcs7Ptr p7(PKCS7_new());
    Pkcs7Ptr content(PKCS7_new());
    content->type = oid(kOidCtl);
    content->d.other = anyOf(ctlDer);
    std::vector<uint8_t> der;
    if (ctlDer.empty() || !PKCS7_set_type(p7.get(), NID_pkcs7_signed) ||
        !PKCS7_set_content(p7.get(), content.get())) {
        *error = "cannot build the PKCS #7 structure";
        return der;
    }
    content.release(); // p7 owns it now
    der = encode(p7.get(), ASN1_ITEM_rptr(PKCS7));
    if (der.empty())
        *error = "cannot encode the catalog";
    return der;
}

bool catalogSubjects(const std::vector<uint8_t>& der, std::vector<std::vector<uint8_t>>* subjects,
                     std::string* error) {
    const unsigned char* p = der.data();
    Pkcs7Ptr p7(d2i_PKCS7(nullptr, &p, long(der.size())));
    const std::unique_ptr<ASN1_OBJECT, Deleter<ASN1_OBJECT, ASN1_OBJECT_free>> ctlOid(oid(kOidCtl));
    if (!p7 || !PKCS7_type_is_signed(p7.get()) || !p7->d.sign->contents ||
        OBJ_cmp(p7->d.sign->contents->type, ctlOid.get()) != 0 || !p7->d.sign->contents->d.other ||
        p7->d.sign->contents->d.other->type != V_ASN1_SEQUENCE) {
        *error = "not PKCS #7 SignedData with a certificate trust list";
        return false;
    }
    const ASN1_STRING* s = p7->d.sign->contents->d.other->value.sequence;
    const unsigned char* q = ASN1_STRING_get0_data(s);
    TrustListPtr ctl(d2i_TrustList(nullptr, &q, ASN1_STRING_length(s)));
    if (!ctl) {
        *error = "the certificate trust list does not decode";
        return false;
    }
    subjects->clear();
    for (int i = 0; i < sk_TrustedSubject_num(ctl->subjects); ++i) {
        const ASN1_OCTET_STRING* subject = sk_TrustedSubject_value(ctl->subjects, i)->subject;
        const unsigned char* d = ASN1_STRING_get0_data(subject);
        subjects->emplace_back(d, d + ASN1_STRING_length(subject));
    }
    return true;
}

} // namespace mkcat
