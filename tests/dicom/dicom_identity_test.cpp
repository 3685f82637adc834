#include <gtest/gtest.h>

#include <set>
#include <string>

#include "dicom/dicom_identity.h"

namespace {

using vdicom::DicomIdentity;
using vdicom::ValidateIdentity;

TEST(DicomIdentity, AcceptsAndNormalisesWhatAPracticeEnters) {
    DicomIdentity id;
    id.patientName = "  Doe^Jane  ";
    id.patientId = "P-0042";
    id.birthDate = "1984-02-29";
    id.sex = "female";
    id.studyDescription = "Bitewing left";
    id.tooth = "36";
    id.accession = "ACC1234567890123";  // 16 characters, the most an accession may have
    std::string error;
    ASSERT_TRUE(ValidateIdentity(id, error)) << error;
    EXPECT_EQ(id.patientName, "Doe^Jane");
    EXPECT_EQ(id.birthDate, "19840229");
    EXPECT_EQ(id.sex, "F");
    EXPECT_FALSE(vdicom::NeedsUtf8(id));

    // 64 characters of two bytes each: the limit counts characters, not bytes.
    DicomIdentity wide;
    for (int i = 0; i < 64; ++i) {
        wide.patientName += "\xC3\xA9";  // é
    }
    ASSERT_TRUE(ValidateIdentity(wide, error)) << error;
    EXPECT_TRUE(vdicom::NeedsUtf8(wide));
}

TEST(DicomIdentity, RefusesBadValuesNamingTheOption) {
    struct Case {
        const char* field;
        std::string value;
        const char* expected;  // part of the message
    };
    const Case cases[] = {
        {"name", "Doe=Jane", "--patient-name: the character '='"},
        {"name", "A^B^C^D^E^F", "--patient-name: has more than five components"},
        {"name", std::string(65, 'x'), "--patient-name: is 65 characters long, at most 64"},
        {"name", "Doe\xC3", "--patient-name: is not valid UTF-8"},
        {"name", "Doe\xC0\xAF", "--patient-name: is not valid UTF-8"},  // overlong '/'
        {"name", "Doe\tJane", "--patient-name: control characters"},
        {"id", "12\\34", "--patient-id: the character '\\'"},
        {"birth", "20230230", "--birth-date: '20230230' is not a valid date"},
        {"birth", "19000229", "--birth-date: '19000229' is not a valid date"},
        {"birth", "2999-12-31", "--birth-date: '2999-12-31' lies in the future"},
        {"birth", "1.2.1990", "--birth-date: '1.2.1990' is not a date of the form"},
        {"sex", "X", "--sex: 'X' is not one of M, F or O"},
        {"tooth", "19", "--tooth: '19' is not a tooth in FDI numbering"},
        {"tooth", "56", "--tooth: '56'"},
        {"tooth", "09", "--tooth: '09'"},
        {"tooth", "3", "--tooth: '3'"},
        {"accession", std::string(17, '7'), "--accession: is 17 characters long, at most 16"},
        {"description", std::string(65, 'd'), "--study-description: is 65 characters"},
    };
    for (const Case& c : cases) {
        DicomIdentity id;
        const std::string field = c.field;
        std::string& target = field == "name"        ? id.patientName
                              : field == "id"        ? id.patientId
                              : field == "birth"     ? id.birthDate
                              : field == "sex"       ? id.sex
                              : field == "tooth"     ? id.tooth
                              : field == "accession" ? id.accession
                                                     : id.studyDescription;
        target = c.value;
        std::string error;
        EXPECT_FALSE(ValidateIdentity(id, error)) << c.field << " '" << c.value << "'";
        EXPECT_NE(error.find(c.expected), std::string::npos)
            << "message: " << error << "\nexpected: " << c.expected;
    }
}

TEST(DicomIdentity, ToothGivesSideAndJaw) {
    struct Case {
        const char* tooth;
        char side;
        bool upper;
    };
    // Quadrants 1 and 5 upper right, 2 and 6 upper left, 3 and 7 lower left, 4 and 8 lower
    // right: the patient's sides.
    const Case cases[] = {{"11", 'R', true},  {"18", 'R', true},  {"21", 'L', true},
                          {"38", 'L', false}, {"41", 'R', false}, {"55", 'R', true},
                          {"61", 'L', true},  {"75", 'L', false}, {"85", 'R', false},
                          {"19", 0, false},   {"", 0, false}};
    for (const Case& c : cases) {
        EXPECT_EQ(vdicom::ToothSide(c.tooth), c.side) << c.tooth;
        EXPECT_EQ(vdicom::ToothInUpperJaw(c.tooth), c.upper) << c.tooth;
    }
}

TEST(DicomIdentity, UidsAreUuidsUnderTheRootThatNeedsNoRegistration) {
    EXPECT_EQ(vdicom::Decimal128(0, 0), "0");
    EXPECT_EQ(vdicom::Decimal128(0, ~0ULL), "18446744073709551615");
    EXPECT_EQ(vdicom::Decimal128(1, 0), "18446744073709551616");
    EXPECT_EQ(vdicom::Decimal128(~0ULL, ~0ULL), "340282366920938463463374607431768211455");

    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const std::string uid = vdicom::NewUid();
        ASSERT_EQ(uid.compare(0, 5, "2.25."), 0) << uid;
        ASSERT_LE(uid.size(), 64u);
        const std::string digits = uid.substr(5);
        ASSERT_FALSE(digits.empty());
        EXPECT_NE(digits[0], '0') << uid;  // no leading zero in a UID component
        EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << uid;
        EXPECT_TRUE(seen.insert(uid).second) << "repeated " << uid;
    }
}

}  // namespace
