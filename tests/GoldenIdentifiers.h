// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_TESTS_GOLDEN_IDENTIFIERS_H
#define COURIER_TESTS_GOLDEN_IDENTIFIERS_H

// What every compiler must make of these types, with every standard library and for every machine:
// modules built years apart must agree. The numbers come from a separate program, by the texts
// beside them, so that neither a change of the hash nor one of the spelling passes unseen.

#include <courier/hub/core/GenericPayload.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace golden {

enum class Colour : unsigned char { red, green };
struct Class {
    struct Nested;
};
template <class> struct Of {
    struct Nested;
    template <class> struct NestedOf;
};
template <class, unsigned = 3, Colour = Colour::green> struct Grid;
template <auto> struct Value;

using courier::hub::core::getTypeID, courier::hub::core::hashTypeText;

static_assert(hashTypeText("") == 0x1ED1B5ABBD8399B7);
static_assert(hashTypeText("abc") == 0x68FE5A6E75DA685E);
static_assert(hashTypeText("\x80\xFF") == 0x17846F076B110E00);

static_assert(getTypeID<bool>() == 0xC55C1E40E35D9522, "bool");
static_assert(getTypeID<char>() == 0x97D544006189876B, "char");
static_assert(getTypeID<signed char>() == 0x320ABBB4A0199159, "signed char");
static_assert(getTypeID<unsigned char>() == 0x33AAED0B55EBC0B5, "unsigned char");
static_assert(getTypeID<short int>() == 0xAA5F9EB42905F695, "short");
static_assert(getTypeID<short unsigned int>() == 0x63B460FA6D0BFE06, "unsigned short");
static_assert(getTypeID<int>() == 0x717A581CF9B345CB, "int");
static_assert(getTypeID<unsigned>() == 0x50B935BC7BC34261, "unsigned int");
static_assert(getTypeID<long int>() == 0x47A1FD6958DB35F6, "long");
static_assert(getTypeID<long unsigned int>() == 0x9B8AB9D7A11741B2, "unsigned long");
static_assert(getTypeID<long long int>() == 0xDBB99B5D62C7A8C5, "long long");
static_assert(getTypeID<long long unsigned int>() == 0xE5066CEE1EEF3376, "unsigned long long");
static_assert(getTypeID<float>() == 0x8FCAC700C2626142, "float");
static_assert(getTypeID<double>() == 0x4C3B1FACE658E2A8, "double");
static_assert(getTypeID<long double>() == 0xA396E562750D37D7, "long double");
static_assert(getTypeID<wchar_t>() == 0x8C58A66E00A17DE2, "wchar_t");
static_assert(getTypeID<char8_t>() == 0xFB0CAD2F494F1836, "char8_t");
static_assert(getTypeID<std::nullptr_t>() == 0x245260D562189BCC, "std::nullptr_t");
static_assert(getTypeID<std::byte>() == 0x2E5E102D63D03844, "std::byte");
static_assert(getTypeID<courier::hub::core::GenericPayload>() == 0xF443267B783DDD4E,
              "courier::hub::core::GenericPayload");
static_assert(getTypeID<Class const volatile&>() == 0x5BF201F46604C49B, "golden::Class");
static_assert(getTypeID<Colour>() == 0xBE5BDF3A62C3D8A0, "golden::Colour");
static_assert(getTypeID<Class::Nested>() == 0x41CB96A3D68ADFD4, "golden::Class::Nested");
static_assert(getTypeID<char*>() == 0x3FAE663A74336806, "char*");
static_assert(getTypeID<char const*>() == 0x67529C0B289A786D, "char const*");
static_assert(getTypeID<char* const*>() == 0x79A8C9D7B0F100CF, "char* const*");
static_assert(getTypeID<int volatile**>() == 0x0A22408874EE3E55, "int volatile**");
static_assert(getTypeID<int[]>() == 0x787463A71A8AA849, "int[]");
static_assert(getTypeID<int[3][4]>() == 0x3FD34AEC5CAC0B68, "int[4][3]");
static_assert(getTypeID<int (*)[3]>() == 0x0E862DD5CA0C5522, "int[3]*");
static_assert(getTypeID<void (*)(int, char const*)>() == 0x0D95C81CB61284C5,
              "void(int,char const*)*");
static_assert(getTypeID<void() noexcept>() == 0xD1A9AC4F5F8ABBBA, "void() noexcept");
static_assert(getTypeID<int Class::*>() == 0x5A26824D3508C113, "int golden::Class::*");
static_assert(getTypeID<void (Class::*)() const>() == 0xC42C53199C66CBCD,
              "void()const golden::Class::*");
static_assert(getTypeID<Of<int&>>() == 0xAF7753D82442E8FC, "golden::Of<int &>");
static_assert(getTypeID<Of<void (&)()>>() == 0xA06A786C3E1D299B, "golden::Of<void() &>");
static_assert(getTypeID<Of<void() &>>() == 0x90F71170B45950B8, "golden::Of<void()&>");
static_assert(getTypeID<Of<int>>() == 0x971DAFA4E344B022, "golden::Of<int>");
static_assert(getTypeID<Of<unsigned>>() == 0x47BBF2A17902192F, "golden::Of<unsigned int>");
static_assert(getTypeID<Of<Of<unsigned long>>>() == 0x740DDBE562CA0D84,
              "golden::Of<golden::Of<unsigned long>>");
static_assert(getTypeID<Of<unsigned long>::Nested>() == 0x66E77FABFA48F02A,
              "golden::Of<unsigned long>::Nested");
static_assert(getTypeID<Of<std::string>::NestedOf<char*>>() == 0x86737B3931E52B16,
              "golden::Of<std::basic_string<char>>::NestedOf<char*>");
static_assert(getTypeID<Grid<int>>() == 0x42051B64B056BA3E,
              "golden::Grid<int,(unsigned int)3,(golden::Colour)1>");
static_assert(getTypeID<Grid<int, 3, Colour{7}>>() == 0x65CE650148331875,
              "golden::Grid<int,(unsigned int)3,(golden::Colour)7>");
static_assert(getTypeID<Value<3>>() == 0x3FA8D777D287D59B, "golden::Value<(int)3>");
static_assert(getTypeID<Value<3U>>() == 0x49D82F6006663472, "golden::Value<(unsigned int)3>");
static_assert(getTypeID<Value<-3LL>>() == 0x223847F75480B3B6, "golden::Value<(long long)-3>");
static_assert(getTypeID<Value<true>>() == 0x1A1DD69317D868A0, "golden::Value<(bool)1>");
static_assert(getTypeID<Value<'a'>>() == 0x9767A8CA268E5BD1, "golden::Value<(char)97>");
static_assert(getTypeID<std::string>() == 0x41DA815FBB0A89F3,
              "std::basic_string<char,std::char_traits<char>,std::allocator<char>>");
static_assert(getTypeID<std::vector<unsigned long>>() == 0x1405EB7073398584,
              "std::vector<unsigned long,std::allocator<unsigned long>>");
static_assert(
    getTypeID<std::map<std::string, double>>() == 0xD1B0FE984611CB49,
    "std::map<std::basic_string<char,std::char_traits<char>,std::allocator<char>>,double,std::less<"
    "std::basic_string<char,std::char_traits<char>,std::allocator<char>>>,std::allocator<std::pair<"
    "std::basic_string<char,std::char_traits<char>,std::allocator<char>> const,double>>>");
static_assert(getTypeID<std::istream>() == 0xAA4D637681EA24BB,
              "std::basic_istream<char,std::char_traits<char>>");
static_assert(getTypeID<std::unique_ptr<Class>>() == 0x5330436FE023FEE1,
              "std::unique_ptr<golden::Class,std::default_delete<golden::Class>>");
static_assert(getTypeID<std::function<void(std::string const&)>>() == 0xA1D1568C46BE9A84,
              "std::function<void(std::basic_string<char,std::char_traits<char>,std::allocator<"
              "char>> const &)>");
static_assert(getTypeID<std::vector<std::uint64_t>>() ==
              (std::is_same_v<std::uint64_t, unsigned long> ? 0x1405EB7073398584
                                                            : 0xD5CDA4D69BC423D9));

} // namespace golden

#endif
