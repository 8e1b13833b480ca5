#include "platform/tokens/key_der.h"

namespace tokens {

using asn1::DerReader;
using asn1::kTagInteger;
using asn1::kTagSequence;

bool RawSignatureFromDer(pki_alg_t alg, std::size_t width, std::string_view der, std::string& raw) {
    DerReader numbers({});
    if (!asn1::ReadWhole(der, kTagSequence, numbers)) return false;
    raw.clear();
    for (int i = 0; i < 2; ++i) {
        std::string_view number;
        if (!numbers.Read(kTagInteger, number) || number.empty()) return false;
        if (alg != PKI_KEY_DSA && (number[0] & 0x80) != 0) return false;
        number = asn1::WithoutLeadingZeros(number);
        if (number.size() > width) return false;
        asn1::AppendPadded(raw, width, number);
    }
    return numbers.AtEnd();
}

bool DerSignatureFromRaw(std::string_view raw, std::string& der) {
    if (raw.empty() || raw.size() % 2 != 0) return false;
    std::string numbers;
    AppendUnsigned(numbers, raw.substr(0, raw.size() / 2));
    AppendUnsigned(numbers, raw.substr(raw.size() / 2));
    der = Tlv(kTagSequence, numbers);
    return true;
}

bool ReadIssuerAndSerial(std::string_view certificate, std::string_view& issuer, std::string_view& serial) {
    DerReader outer({});
    DerReader fields({});
    std::string_view version;
    asn1::Tlv serial_element;
    asn1::Tlv algorithm;
    asn1::Tlv issuer_element;
    if (!asn1::ReadWhole(certificate, kTagSequence, outer) || !outer.Enter(kTagSequence, fields) ||
        !fields.ReadOptional(asn1::kTagContext0, version) || !fields.Next(serial_element) || !fields.Next(algorithm) ||
        !fields.Next(issuer_element) || serial_element.tag != kTagInteger || issuer_element.tag != kTagSequence) {
        return false;
    }
    issuer = issuer_element.whole;
    serial = serial_element.whole;
    return true;
}

}  // namespace tokens
