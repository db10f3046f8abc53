// Shader records, the clip-matrix shader, shader search directories and
// shader files.
#include "orbivane/geometry/shader.h"

#include <cstdlib>
#include <filesystem>
#include <list>
#include <map>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <opencv2/core.hpp>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/shader_directories.h"
#include "support/matchers.h"
#include "support/scoped_environment.h"
#include "synthetic/sample_data.h"

namespace {

namespace fs = std::filesystem;
using OrbivaneGeometry::Shader;
using ::testing::HasSubstr;

// The message of the exception of type E that `call` throws.
template <typename E, typename Call>
std::string messageOf(Call call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "(nothing of the expected type thrown)";
}

std::string shippedShaderFolder() {
  if (const char* dir = std::getenv("ORBIVANE_SHADER_SOURCE_DIR")) return dir;
  return (fs::path(__FILE__).parent_path().parent_path().parent_path() / "shaders").string();
}

const char kTestUid[] = "7E57C0DE";

void writeShader(const std::string& path, const std::string& name) {
  fs::create_directories(fs::path(path).parent_path());
  Synthetic::writeText(path, std::string("uid = ") + kTestUid + "\nname = " + name + "\nparam i_level = 3\n");
}

}  // namespace

TEST(Shader, ParsesTheUidAsTwoHexadecimalHalves) {
  const Shader plain("00050007", {{"i_clipMatrix_enabled", "1"}});
  EXPECT_EQ(plain.uidHigh(), 5);
  EXPECT_EQ(plain.uidLow(), 7);
  EXPECT_EQ(plain.uid(), "00050007");
  ASSERT_NE(plain.parameter("i_clipMatrix_enabled"), nullptr);
  EXPECT_EQ(*plain.parameter("i_clipMatrix_enabled"), "1");
  EXPECT_EQ(plain.parameter("f_missing"), nullptr);

  const Shader padded("  00050007   ", {});
  EXPECT_EQ(padded.uidHigh(), 5);
  EXPECT_EQ(padded.uidLow(), 7);
  EXPECT_EQ(padded.uid(), "00050007");

  const Shader mixedCase("FFFFffff", {});
  EXPECT_EQ(mixedCase.uidHigh(), 65535);
  EXPECT_EQ(mixedCase.uidLow(), 65535);
  const Shader halves("0A0B1C2D", {});
  EXPECT_EQ(halves.uidHigh(), 0x0A0B);
  EXPECT_EQ(halves.uidLow(), 0x1C2D);
}

TEST(Shader, RejectsUidsOfAnotherLength) {
  for (const char* uid : {"0005000", "000500070", "", "        ", "\t00050007", "00050007\n", "0005 0007"}) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { Shader s(uid, {}); }), "Invalid UID") << "'" << uid << "'";
  }
}

TEST(Shader, HalvesAreReadByTheStandardConversionInBase16) {
  // Halves with no hexadecimal digit where the conversion starts fail with its text.
  for (const char* uid : {"0005zz07", "zz050007", "0005 -x7"}) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { Shader s(uid, {}); }), "invalid stoul argument")
        << "'" << uid << "'";
  }
  // Otherwise the conversion's own rules hold: a "0x" prefix and leading
  // blanks are taken, trailing characters end the number, a sign wraps.
  const struct {
    const char* uid;
    std::uint16_t high, low;
  } accepted[] = {{"0x050007", 5, 7},   {"0005 007", 5, 7}, {"00050O07", 5, 0},
                  {"-0050007", 65531, 7}, {"0x0x0007", 0, 7}, {"1g2h3i4j", 1, 3}};
  for (const auto& a : accepted) {
    const Shader s(a.uid, {});
    EXPECT_EQ(s.uidHigh(), a.high) << a.uid;
    EXPECT_EQ(s.uidLow(), a.low) << a.uid;
  }
}

TEST(ClipMatrix, IdentityGivesTheUnitDiagonal) {
  const Shader shader = OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity());
  EXPECT_EQ(shader.uid(), OrbivaneGeometry::kClipMatrixShaderUid);
  EXPECT_EQ(shader.uid(), "00050007");
  const std::map<std::string, std::string> expected = {
      {"i_clipMatrix_enabled", "1"},       {"f_clipMatrix_m00", "1.000000"}, {"f_clipMatrix_m01", "0.000000"},
      {"f_clipMatrix_m02", "0.000000"},    {"f_clipMatrix_m10", "0.000000"}, {"f_clipMatrix_m11", "1.000000"},
      {"f_clipMatrix_m12", "0.000000"},    {"f_clipMatrix_m20", "0.000000"}, {"f_clipMatrix_m21", "0.000000"},
      {"f_clipMatrix_m22", "1.000000"},
  };
  EXPECT_EQ(shader.parameters(), expected);
}

TEST(ClipMatrix, KeepsTheFourthColumnAndRowAndDropsTheDepth) {
  const Shader shifted = OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::translation(0.25f, -0.5f));
  EXPECT_EQ(*shifted.parameter("f_clipMatrix_m02"), "0.250000");
  EXPECT_EQ(*shifted.parameter("f_clipMatrix_m12"), "-0.500000");

  // Element (r, c) holds 10 r + c + 1; the depth row and column hold 999.
  Utils::Matrix4x4 m;
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) m.set(r, c, (r == 2 || c == 2) ? 999.0f : float(10 * r + c + 1));
  }
  const Shader shader = OrbivaneGeometry::clipMatrixShader(m);
  const std::map<std::string, std::string> expected = {
      {"i_clipMatrix_enabled", "1"},       {"f_clipMatrix_m00", "1.000000"},  {"f_clipMatrix_m01", "2.000000"},
      {"f_clipMatrix_m02", "4.000000"},    {"f_clipMatrix_m10", "11.000000"}, {"f_clipMatrix_m11", "12.000000"},
      {"f_clipMatrix_m12", "14.000000"},   {"f_clipMatrix_m20", "31.000000"}, {"f_clipMatrix_m21", "32.000000"},
      {"f_clipMatrix_m22", "34.000000"},
  };
  EXPECT_EQ(shader.parameters(), expected);

  // Reading back fills the nine places and leaves the depth row and column identity.
  const Utils::Matrix4x4 back = OrbivaneGeometry::clipMatrixFromShader(shader);
  for (int r = 0; r < 4; ++r) {
    for (int c = 0; c < 4; ++c) {
      const float truth = (r == 2 || c == 2) ? (r == c ? 1.0f : 0.0f) : m.get(r, c);
      EXPECT_EQ(back.get(r, c), truth) << r << "," << c;
    }
  }
}

TEST(ClipMatrix, ReadingBackAndRebuildingGivesTheSameText) {
  cv::RNG rng(31);
  for (int trial = 0; trial < 25; ++trial) {
    Utils::Matrix4x4 m;
    for (int r : {0, 1, 3}) {
      for (int c : {0, 1, 3}) m.set(r, c, static_cast<float>(rng.uniform(-50.0, 50.0)));
    }
    const Shader first = OrbivaneGeometry::clipMatrixShader(m);
    const Utils::Matrix4x4 back = OrbivaneGeometry::clipMatrixFromShader(first);
    // Six decimals: the values come back rounded, never further off.
    for (int r : {0, 1, 3}) {
      for (int c : {0, 1, 3}) EXPECT_NEAR(back.get(r, c), m.get(r, c), 5e-6) << r << "," << c;
    }
    EXPECT_EQ(OrbivaneGeometry::clipMatrixShader(back), first);
  }
  EXPECT_EQ(*OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::translation(1.0f / 3.0f, 0)).parameter(
                "f_clipMatrix_m02"),
            "0.333333");
}

TEST(ClipMatrix, BadValuesPassTheConversionErrorsOn) {
  Shader shader = OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4());
  for (const char* text : {"abc", "", " ", "--1", "x1"}) {
    shader.setParameter("f_clipMatrix_m01", text);
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { OrbivaneGeometry::clipMatrixFromShader(shader); }),
              "invalid stof argument")
        << "'" << text << "'";
  }
  for (const char* text : {"1e999", "-1e39", "1e-40"}) {
    shader.setParameter("f_clipMatrix_m01", text);
    EXPECT_EQ(messageOf<std::out_of_range>([&] { OrbivaneGeometry::clipMatrixFromShader(shader); }),
              "stof argument out of range")
        << text;
  }
  // The standard conversion's own reading: blanks before, characters after,
  // hexadecimal floats.
  const std::pair<const char*, float> read[] = {{"1.5x", 1.5f}, {"  2", 2.0f}, {"0x1p-2", 0.25f}, {"3e", 3.0f}};
  for (const auto& [text, value] : read) {
    shader.setParameter("f_clipMatrix_m01", text);
    EXPECT_EQ(OrbivaneGeometry::clipMatrixFromShader(shader).get(0, 1), value) << text;
  }
  shader.setParameter("f_clipMatrix_m01", "-2.500000");
  EXPECT_EQ(OrbivaneGeometry::clipMatrixFromShader(shader).get(0, 1), -2.5f);

  shader.parameters().erase("f_clipMatrix_m21");
  EXPECT_THAT(messageOf<std::invalid_argument>([&] { OrbivaneGeometry::clipMatrixFromShader(shader); }),
              HasSubstr("f_clipMatrix_m21"));
}

TEST(ClipMatrix, FindsTheFirstEnabledClipMatrixShaderOfAChain) {
  std::list<Shader> chain;
  EXPECT_EQ(OrbivaneGeometry::findClipMatrixShader(chain), nullptr);
  chain.emplace_back("00010002", std::map<std::string, std::string>{{"i_clipMatrix_enabled", "1"}});
  Shader disabled = OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::translation(9, 9));
  disabled.setParameter("i_clipMatrix_enabled", "0");
  chain.push_back(disabled);
  EXPECT_EQ(OrbivaneGeometry::findClipMatrixShader(chain), nullptr);
  chain.push_back(OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::translation(1, 2)));
  chain.push_back(OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::translation(3, 4)));
  const Shader* found = OrbivaneGeometry::findClipMatrixShader(chain);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, &*std::next(chain.begin(), 2));
}

TEST(ShaderDirectories, FiveDirectoriesInOrder) {
  {
    ScopedEnvironment data("ProgramData", "C:\\ProgramData");
    ScopedEnvironment files("ProgramFiles", "C:\\Program Files");
    EXPECT_THAT(OrbivaneGeometry::shaderDirectories(),
                ::testing::ElementsAre("./", "./Shaders/", "C:\\ProgramData\\Hollbrink\\Shaders\\",
                                       "C:\\ProgramData\\Hollbrink\\TREVOS-ViewingClient\\Shaders\\",
                                       "C:\\Program Files\\Hollbrink\\Trimlane\\bin\\"));
  }
  ScopedEnvironment data("ProgramData", nullptr);
  ScopedEnvironment files("ProgramFiles", nullptr);
  EXPECT_THAT(OrbivaneGeometry::shaderDirectories(),
              ::testing::ElementsAre("./", "./Shaders/", "\\Hollbrink\\Shaders\\",
                                     "\\Hollbrink\\TREVOS-ViewingClient\\Shaders\\", "\\Hollbrink\\Trimlane\\bin\\"));
}

TEST(ShaderDirectories, AValueThatDoesNotFitTheBufferCannotBeRead) {
  // The buffer holds 65,535 characters with the terminating NUL: 65,534
  // characters of value fit, 65,535 do not (the entry is the bare suffix).
  const std::string fits(65534, 'a');
  const std::string tooLong(65535, 'b');
  {
    ScopedEnvironment data("ProgramData", fits.c_str());
    ScopedEnvironment files("ProgramFiles", tooLong.c_str());
    const auto dirs = OrbivaneGeometry::shaderDirectories();
    ASSERT_EQ(dirs.size(), 5u);
    EXPECT_EQ(dirs[2], fits + "\\Hollbrink\\Shaders\\");
    EXPECT_EQ(dirs[4], "\\Hollbrink\\Trimlane\\bin\\");
  }
  // A variable set to the empty text reads as empty.
  ScopedEnvironment data("ProgramData", "");
  EXPECT_EQ(OrbivaneGeometry::shaderDirectories()[3], "\\Hollbrink\\TREVOS-ViewingClient\\Shaders\\");
}

TEST(ShaderFile, LoadsUidNameAndDefaults) {
  Synthetic::TemporaryDirectory dir;
  const std::string path = dir.file("0001ABCD.shader");
  Synthetic::writeText(path,
                     "# a comment\n"
                     "\n"
                     "   uid =   0001ABCD  \r\n"
                     "name = Lens   shading\n"
                     "\tparam f_strength = 0.75\n"
                     "param i_passes=2\n"
                     "  # indented comment\n");
  const auto loaded = OrbivaneGeometry::loadShaderFile(path);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  EXPECT_EQ(loaded.value().path, path);
  EXPECT_EQ(loaded.value().name, "Lens   shading");
  EXPECT_EQ(loaded.value().shader.uid(), "0001ABCD");
  EXPECT_EQ(loaded.value().shader.uidLow(), 0xABCD);
  const std::map<std::string, std::string> expected = {{"f_strength", "0.75"}, {"i_passes", "2"}};
  EXPECT_EQ(loaded.value().shader.parameters(), expected);
}

TEST(ShaderFile, ErrorsNameTheFileAndTheLine) {
  Synthetic::TemporaryDirectory dir;
  const auto errorOf = [&](const std::string& name, const std::string& text) {
    Synthetic::writeText(dir.file(name), text);
    const auto loaded = OrbivaneGeometry::loadShaderFile(dir.file(name));
    return loaded.hasError() ? loaded.error() : std::string("(loaded)");
  };
  EXPECT_THAT(errorOf("00000001.shader", "uid = 00000001\n# fine\nthis line has no equals sign\n"),
              ::testing::AllOf(HasSubstr(dir.file("00000001.shader")), HasSubstr("line 3"),
                               HasSubstr("key = value")));
  EXPECT_THAT(errorOf("00000002.shader", "uid = 00000002\ncolour = red\n"),
              ::testing::AllOf(HasSubstr(dir.file("00000002.shader")), HasSubstr("line 2"),
                               HasSubstr("unknown key 'colour'")));
  EXPECT_THAT(errorOf("00000003.shader", "uid = 00000003\nparam strength = 1\n"),
              ::testing::AllOf(HasSubstr("line 2"), HasSubstr("'strength'")));
  EXPECT_THAT(errorOf("00050008.shader", "uid = 00050007\n"),
              ::testing::AllOf(HasSubstr(dir.file("00050008.shader")), HasSubstr("00050007"),
                               HasSubstr("not named 00050007.shader")));
  EXPECT_THAT(errorOf("00000004.shader", "name = no uid here\n"),
              ::testing::AllOf(HasSubstr(dir.file("00000004.shader")), HasSubstr("no uid")));
  EXPECT_THAT(errorOf("00000005.shader", "uid = 12345\n"), HasSubstr("Invalid UID"));
  EXPECT_THAT(errorOf("G0000000.shader", "uid = G0000000\n"), HasSubstr("invalid stoul argument"));
  const auto missing = OrbivaneGeometry::loadShaderFile(dir.file("FFFF0000.shader"));
  ASSERT_TRUE(missing.hasError());
  EXPECT_THAT(missing.error(), HasSubstr(dir.file("FFFF0000.shader")));
}

TEST(ShaderFile, FoundThroughProgramDataInDirectoryOrder) {
  Synthetic::TemporaryDirectory data;
  Synthetic::TemporaryDirectory files;
  ScopedEnvironment dataVariable("ProgramData", data.path().c_str());
  ScopedEnvironment filesVariable("ProgramFiles", files.path().c_str());
  const std::string first = data.path() + "/Hollbrink/Shaders/" + kTestUid + ".shader";
  const std::string second = data.path() + "/Hollbrink/TREVOS-ViewingClient/Shaders/" + kTestUid + ".shader";
  const std::string third = files.path() + "/Hollbrink/Trimlane/bin/" + kTestUid + ".shader";

  EXPECT_FALSE(OrbivaneGeometry::findShaderFile(kTestUid).has_value());
  writeShader(third, "third");
  EXPECT_EQ(OrbivaneGeometry::findShaderFile(kTestUid).value_or(""), third);
  writeShader(second, "second");
  EXPECT_EQ(OrbivaneGeometry::findShaderFile(kTestUid).value_or(""), second);
  writeShader(first, "first");
  EXPECT_EQ(OrbivaneGeometry::findShaderFile(kTestUid).value_or(""), first);
  // A folder of that name is no shader file.
  fs::remove(first);
  fs::create_directory(first);
  EXPECT_EQ(OrbivaneGeometry::findShaderFile(kTestUid).value_or(""), second);
  fs::remove(first);
  writeShader(first, "first");

  // knownShaders takes a UID from the first directory and skips broken files.
  Synthetic::writeText(data.path() + "/Hollbrink/Shaders/BADBAD00.shader", "this is not a shader\n");
  const auto known = OrbivaneGeometry::knownShaders();
  ASSERT_EQ(known.count(kTestUid), 1u);
  EXPECT_EQ(known.at(kTestUid).name, "first");
  EXPECT_EQ(known.at(kTestUid).path, first);
  EXPECT_EQ(known.count("BADBAD00"), 0u);
}

TEST(ShaderFile, ShippedClipMatrixShaderHoldsTheIdentity) {
  const std::string path = shippedShaderFolder() + "/00050007.shader";
  const auto loaded = OrbivaneGeometry::loadShaderFile(path);
  ASSERT_TRUE(loaded.hasValue()) << loaded.error();
  EXPECT_EQ(loaded.value().shader.uid(), OrbivaneGeometry::kClipMatrixShaderUid);
  EXPECT_FALSE(loaded.value().name.empty());
  EXPECT_EQ(loaded.value().shader.parameters(),
            OrbivaneGeometry::clipMatrixShader(Utils::Matrix4x4::identity()).parameters());
  EXPECT_THAT(OrbivaneGeometry::clipMatrixFromShader(loaded.value().shader),
              Testing::MatrixNear(Utils::Matrix4x4::identity(), 0.0));
}
