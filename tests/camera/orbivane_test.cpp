// Camera and module copies, neighbour references and module lookup.
#include "orbivane/camera/orbivane.h"

#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "orbivane/geometry/clip_matrix.h"
#include "orbivane/geometry/matrix_geometry.h"
#include "orbivane/image/rgb_image.h"
#include "synthetic/connections.h"

namespace {

using CameraDescription::Orbivane;
using CameraDescription::OrbivaneLinkage;
using CameraDescription::OrbivaneModule;
using Utils::Matrix4x4;

OrbivaneModule richModule(const std::wstring& name, float shift) {
  OrbivaneModule m(name);
  m.setRotation(90);
  m.setChannel(4);
  m.setFisheye(true);
  m.setFisheyeThreshold(std::int16_t{97});
  m.setGeometry(std::make_unique<OrbivaneGeometry::MatrixGeometry>(Matrix4x4::translation(shift, 0.0f),
                                                                   Utils::UVGrid(2, 2)));
  m.setLinkage(std::make_unique<OrbivaneLinkage>(L"left of " + name, L"right of " + name, 0.2f));
  m.setShaders({OrbivaneGeometry::clipMatrixShader(Matrix4x4::translation(shift, 0.0f))});
  m.setImage(std::make_shared<Image::RGBImage>(4, 3, Image::kMappingBGR));
  m.setImagePath("/pictures/" + std::to_string(static_cast<int>(shift * 10)) + ".png");
  const Quarn::QuarnConnection c = Synthetic::simulatedConnection("/tmp/state.json", "cam");
  m.setConnection(c);
  return m;
}

// Camera A -> B -> C -> A, all three with every member set.
Orbivane ringCamera() {
  Orbivane camera;
  camera.setName(L"Rooftop");
  camera.setPanoramaSize({4096, 1024});
  const auto a = camera.addModule(richModule(L"A", 0.0f));
  const auto b = camera.addModule(richModule(L"B", 1.0f));
  const auto c = camera.addModule(richModule(L"C", 2.0f));
  a->setNeighbour(b);
  b->setNeighbour(c);
  c->setNeighbour(a);
  return camera;
}

}  // namespace

TEST(Orbivane, ChangingACopysModulesLeavesTheSourceUntouched) {
  const Orbivane source = ringCamera();
  Orbivane copy = source;
  ASSERT_EQ(copy.modules().size(), 3u);
  EXPECT_EQ(copy.name(), L"Rooftop");
  EXPECT_EQ(copy.panoramaSize(), (Utils::Size{4096, 1024}));
  for (std::size_t i = 0; i < 3; ++i) EXPECT_NE(copy.modules()[i].get(), source.modules()[i].get());

  auto& a = *copy.modules()[0];
  const auto& original = *source.modules()[0];
  EXPECT_NE(a.geometry(), original.geometry());
  EXPECT_NE(a.linkage(), original.linkage());
  // The picture is immutable and shared.
  EXPECT_EQ(a.image().get(), original.image().get());

  a.matrixGeometry()->setMatrix(Matrix4x4::translation(7.0f, 7.0f));
  Utils::UVGrid warped = *a.matrixGeometry()->uvGrid();
  warped.setPoint(1, 1, {0.0f, 0.0f});
  a.matrixGeometry()->setUVGrid(warped);
  a.setLinkage(std::make_unique<OrbivaneLinkage>(L"X", L"Y", 0.9f));
  a.shaders().front().setParameter("f_clipMatrix_m02", "7.000000");
  a.shaders().push_back(OrbivaneGeometry::Shader("00010001", {}));
  a.setFisheyeThreshold(std::int16_t{10});
  a.setRotation(180);
  a.setName(L"Renamed");
  copy.modules()[1]->setGeometry(nullptr);
  copy.modules()[2]->setFisheyeThreshold(std::nullopt);

  EXPECT_EQ(original.matrixGeometry()->matrix(), Matrix4x4::translation(0.0f, 0.0f));
  EXPECT_TRUE(original.matrixGeometry()->uvGrid()->isRegular());
  ASSERT_NE(original.linkage(), nullptr);
  EXPECT_EQ(original.linkage()->right, L"right of A");
  EXPECT_FLOAT_EQ(original.linkage()->overlap, 0.2f);
  ASSERT_EQ(original.shaders().size(), 1u);
  EXPECT_EQ(*original.shaders().front().parameter("f_clipMatrix_m02"), "0.000000");
  EXPECT_EQ(original.fisheyeThreshold(), std::optional<std::int16_t>(97));
  EXPECT_EQ(original.rotation(), 90);
  EXPECT_EQ(original.name(), L"A");
  EXPECT_NE(source.modules()[1]->geometry(), nullptr);
  EXPECT_EQ(source.modules()[2]->fisheyeThreshold(), std::optional<std::int16_t>(97));
  EXPECT_EQ(a.fisheyeThreshold(), std::optional<std::int16_t>(10));
}

TEST(Orbivane, CopiedNeighboursPointAtTheCopysOwnModules) {
  auto outside = std::make_shared<OrbivaneModule>(L"Elsewhere");
  auto source = std::make_unique<Orbivane>(ringCamera());
  const auto d = source->addModule(OrbivaneModule(L"D"));
  d->setNeighbour(outside);

  Orbivane copy = *source;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(copy.modules()[i]->neighbour().get(), copy.modules()[(i + 1) % 3].get()) << i;
    EXPECT_NE(copy.modules()[i]->neighbour().get(), source->modules()[(i + 1) % 3].get()) << i;
  }
  EXPECT_EQ(copy.modules()[3]->neighbour().get(), outside.get()) << "a neighbour outside the camera stays";

  // Assignment over a camera that already has modules follows the same rule.
  Orbivane assigned;
  assigned.addModule(OrbivaneModule(L"Old"));
  assigned = *source;
  ASSERT_EQ(assigned.modules().size(), 4u);
  EXPECT_EQ(assigned.modules()[2]->neighbour().get(), assigned.modules()[0].get());

  // The copies live on without the source.
  source.reset();
  ASSERT_NE(copy.modules()[0]->neighbour(), nullptr);
  EXPECT_EQ(copy.modules()[0]->neighbour()->name(), L"B");
  EXPECT_EQ(assigned.modules()[1]->neighbour()->name(), L"C");

  // Moving keeps the very same modules and references.
  const OrbivaneModule* firstModule = copy.modules()[0].get();
  Orbivane moved = std::move(copy);
  EXPECT_EQ(moved.modules()[0].get(), firstModule);
  EXPECT_EQ(moved.modules()[2]->neighbour().get(), firstModule);
}

TEST(Orbivane, NeighbourReferenceDoesNotKeepTheNeighbourAlive) {
  OrbivaneModule module(L"A");
  EXPECT_EQ(module.neighbour(), nullptr);
  auto neighbour = std::make_shared<OrbivaneModule>(L"B");
  module.setNeighbour(neighbour);
  EXPECT_EQ(neighbour.use_count(), 1);
  EXPECT_EQ(module.neighbourUseCount(), 1);
  ASSERT_NE(module.neighbour(), nullptr);
  EXPECT_EQ(module.neighbour()->name(), L"B");

  const OrbivaneModule copy = module;  // a module copy refers to the same neighbour
  EXPECT_EQ(copy.neighbour().get(), neighbour.get());
  neighbour.reset();
  EXPECT_EQ(module.neighbour(), nullptr);
  EXPECT_EQ(copy.neighbour(), nullptr);
  EXPECT_EQ(module.neighbourUseCount(), 0);

  // Removing a module from its camera ends the references to it.
  Orbivane camera = ringCamera();
  camera.modules().erase(camera.modules().begin() + 1);
  EXPECT_EQ(camera.modules()[0]->neighbour(), nullptr);
  EXPECT_NE(camera.modules()[1]->neighbour(), nullptr);
}

TEST(Orbivane, LookupIsExactCaseSensitiveAndTakesTheFirst) {
  Orbivane camera;
  const auto first = camera.addModule(OrbivaneModule(L"ModuleA"));
  const auto b = camera.addModule(OrbivaneModule(L"ModuleB"));
  const auto second = camera.addModule(OrbivaneModule(L"ModuleA"));
  const auto south = camera.addModule(OrbivaneModule(L"Modul S\u00FCd"));
  second->setRotation(180);
  const Orbivane& constCamera = camera;

  EXPECT_EQ(CameraDescription::findModule(camera, L"ModuleA").get(), first.get());
  EXPECT_EQ(camera.findModule(L"ModuleA").get(), first.get());
  EXPECT_EQ(constCamera.findModule(L"ModuleA").get(), first.get());
  EXPECT_EQ(camera.findModule(L"ModuleB").get(), b.get());
  EXPECT_EQ(CameraDescription::findModule(camera, L"Modul S\u00FCd").get(), south.get());
  for (const std::wstring name : {L"modulea", L"MODULEA", L"ModuleA ", L"Module", L"ModuleAB", L"", L"Modul Sud"}) {
    EXPECT_EQ(CameraDescription::findModule(camera, name), nullptr);
    EXPECT_EQ(camera.findModule(name), nullptr);
    EXPECT_EQ(constCamera.findModule(name), nullptr);
  }
  // A name with an embedded NUL is not its prefix.
  EXPECT_EQ(CameraDescription::findModule(camera, std::wstring(L"ModuleA\0x", 9)), nullptr);
  EXPECT_EQ(camera.findModule(std::wstring(L"ModuleB\0", 8)), nullptr);
}

TEST(Orbivane, BareModulesCopyAndLookUp) {
  Orbivane camera;
  camera.addModule(OrbivaneModule(L"Bare"));
  camera.addModule(OrbivaneModule(L"Other"));
  const Orbivane copy = camera;
  const auto bare = copy.findModule(L"Bare");
  ASSERT_NE(bare, nullptr);
  EXPECT_NE(bare.get(), camera.findModule(L"Bare").get());
  EXPECT_EQ(bare->geometry(), nullptr);
  EXPECT_EQ(bare->matrixGeometry(), nullptr);
  EXPECT_EQ(bare->linkage(), nullptr);
  EXPECT_EQ(bare->image(), nullptr);
  EXPECT_FALSE(bare->connection().has_value());
  EXPECT_FALSE(bare->fisheyeThreshold().has_value());
  EXPECT_TRUE(bare->shaders().empty());
  EXPECT_EQ(bare->neighbour(), nullptr);
  EXPECT_EQ(bare->geometryRevision(), 0u);
  EXPECT_EQ(CameraDescription::findModule(copy, L"Other").get(), copy.modules()[1].get());
  EXPECT_TRUE(copy.panoramaSize().empty());
}

namespace {

// A geometry and a linkage that count how many of their kind are alive, so
// the test sees a copy assignment release what the target held.
int liveGeometries = 0;
int liveLinkages = 0;

class CountedGeometry : public OrbivaneGeometry::MatrixGeometry {
 public:
  CountedGeometry() { ++liveGeometries; }
  CountedGeometry(const CountedGeometry& other) : MatrixGeometry(other) { ++liveGeometries; }
  ~CountedGeometry() override { --liveGeometries; }
  std::unique_ptr<OrbivaneGeometry::Geometry> clone() const override {
    return std::make_unique<CountedGeometry>(*this);
  }
};

class CountedLinkage : public OrbivaneLinkage {
 public:
  CountedLinkage() : OrbivaneLinkage(L"l", L"r", 0.3f) { ++liveLinkages; }
  CountedLinkage(const CountedLinkage& other) : OrbivaneLinkage(other) { ++liveLinkages; }
  ~CountedLinkage() override { --liveLinkages; }
  std::unique_ptr<OrbivaneLinkage> clone() const override { return std::make_unique<CountedLinkage>(*this); }
};

}  // namespace

TEST(OrbivaneModule, CopyAssignmentReleasesWhatTheTargetHeldAndClonesWhatTheSourceHas) {
  {
    OrbivaneModule target(L"T");
    target.setGeometry(std::make_unique<CountedGeometry>());
    target.setLinkage(std::make_unique<CountedLinkage>());
    target.setFisheyeThreshold(std::int16_t{120});
    ASSERT_EQ(liveGeometries, 1);
    ASSERT_EQ(liveLinkages, 1);

    // A source without geometry, linkage or threshold: the target lets go of its own.
    OrbivaneModule bare(L"bare");
    target = bare;
    EXPECT_EQ(target.name(), L"bare");
    EXPECT_EQ(target.geometry(), nullptr);
    EXPECT_EQ(target.linkage(), nullptr);
    EXPECT_FALSE(target.fisheyeThreshold().has_value());
    EXPECT_EQ(liveGeometries, 0) << "the target's geometry was not released";
    EXPECT_EQ(liveLinkages, 0) << "the target's linkage was not released";

    // A source that has them: the target gets clones of its own.
    OrbivaneModule source(L"S");
    source.setGeometry(std::make_unique<CountedGeometry>());
    source.setLinkage(std::make_unique<CountedLinkage>());
    source.setFisheyeThreshold(std::int16_t{-3});
    target = source;
    EXPECT_EQ(liveGeometries, 2);
    EXPECT_EQ(liveLinkages, 2);
    EXPECT_NE(target.geometry(), source.geometry());
    EXPECT_NE(target.linkage(), source.linkage());
    EXPECT_EQ(target.fisheyeThreshold(), Utils::Optional<std::int16_t>(std::int16_t{-3}));
    source.setFisheyeThreshold(std::int16_t{7});
    EXPECT_EQ(target.fisheyeThreshold(), Utils::Optional<std::int16_t>(std::int16_t{-3}));
    // Onto itself: nothing changes, nothing is released.
    target = *&target;
    EXPECT_EQ(liveGeometries, 2);
    EXPECT_EQ(target.linkage()->overlap, 0.3f);
  }
  EXPECT_EQ(liveGeometries, 0);
  EXPECT_EQ(liveLinkages, 0);
}
