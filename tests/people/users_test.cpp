// The users stage inside the whole segmentation engine, driven by rendered rooms.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>

#include "support/sim_scene.h"

using sim_scene::Scene;
using sim_scene::SceneEngine;
using sim_scene::id_of;

namespace {

constexpr float kStep = 30.f;  // mm per frame: about 0.9 m/s

Scene room() {
  Scene scene;
  scene.floor().wall(4000.f);
  return scene;
}

// Checks that hold on every frame: ids only where something near and off the floor is, the
// region tables consistent, ids of active users only.
void check_frame(SceneEngine& run, const std::vector<uint16_t>& depth) {
  const auto& users = run.users();
  ASSERT_TRUE(users.consistent());
  const auto floor = run.engine().floor_output();
  const auto labels = run.engine().label_output();
  for (size_t i = 0; i < depth.size(); ++i) {
    const uint16_t id = labels.data[i];
    if (id == 0) continue;
    ASSERT_LE(id, 10);
    ASSERT_TRUE(users.is_active(id));
    ASSERT_NE(depth[i], 0);
    ASSERT_LT(depth[i], 4500);
    if (floor.detected != 0) {
      ASSERT_EQ(floor.mask[i], 0) << "floor pixel " << i << " carries id " << id;
    }
  }
}

// The share of the person's pixels that carry the id (recall) and of the id's pixels that
// lie on the person (precision) exceed the given minimums.
void expect_coverage(const SceneEngine& run, const Scene& scene, int person, uint16_t id, double minRecall = 0.8,
                     double minPrecision = 0.9) {
  const std::vector<uint8_t> mask = scene.mask_of(person);
  int both = 0, onPerson = 0, withId = 0;
  for (int y = 0; y < scene.height(); ++y) {
    for (int x = 0; x < scene.width(); ++x) {
      const bool m = mask[size_t(y * scene.width() + x)] != 0;
      const bool l = run.label(x, y) == id;
      both += m && l;
      onPerson += m;
      withId += l;
    }
  }
  EXPECT_GT(onPerson > 0 ? double(both) / onPerson : 0, minRecall) << "recall of id " << id;
  EXPECT_GT(withId > 0 ? double(both) / withId : 0, minPrecision) << "precision of id " << id;
}

// Renders the scene, feeds it to the engine and checks the frame.
void step(SceneEngine& run, const Scene& scene) {
  const std::vector<uint16_t> depth = scene.render();
  run.feed(depth);
  check_frame(run, depth);
}

struct Walk {
  int fullFrame = -1;     // first frame of the walk with the person fully visible
  int firstIdFrame = -1;  // first frame of the walk with an id on the person
  uint16_t id = 0;        // that id
};

// Walks a person to endX at depth z, one step per frame, checking every frame.
Walk walk(SceneEngine& run, Scene& scene, int person, float endX, float z) {
  int present = 0;
  for (size_t i = 0; i < scene.people_count(); ++i) present += scene.person(int(i)).visible ? 1 : 0;
  Walk w;
  const float direction = endX > scene.person(person).x ? 1.f : -1.f;
  for (int f = 0; direction * (endX - scene.person(person).x) > 0; ++f) {
    scene.walk_to(person, scene.person(person).x + direction * kStep, z);
    SCOPED_TRACE(testing::Message() << "frame " << f << " x " << scene.person(person).x);
    step(run, scene);
    // One person never splits into two ids.
    EXPECT_LE(run.users().active_user_count(), present);
    if (w.fullFrame < 0 && scene.fully_visible(person)) w.fullFrame = f;
    const uint16_t now = id_of(run, scene, person);
    if (w.firstIdFrame < 0 && now != 0) {
      w.firstIdFrame = f;
      w.id = now;
    }
    if (w.firstIdFrame >= 0 && w.fullFrame >= 0) {
      EXPECT_EQ(now, w.id) << "the id changed";
    }
  }
  return w;
}

}  // namespace

// Areas and heights are measured in the world, so the image size changes nothing.
TEST(Users, PersonWalkingInGetsIdOneWithinThirtyFramesOfBeingFullyVisible) {
  for (int scale : {1, 2}) {
    SCOPED_TRACE(testing::Message() << "scale " << scale);
    Scene scene(1000.f, 5.f, 160 * scale, 120 * scale);
    scene.floor().wall(4000.f);
    const int p = scene.add_person(-2500.f, 2800.f);
    SceneEngine run(160 * scale, 120 * scale);
    run.feed(scene.render(), 40);
    const Walk w = walk(run, scene, p, 600.f, 2800.f);
    ASSERT_GE(w.fullFrame, 0);
    ASSERT_GE(w.firstIdFrame, 0);
    EXPECT_LE(w.firstIdFrame, w.fullFrame + 30);
    EXPECT_EQ(w.id, 1);
    EXPECT_EQ(run.users().active_user_count(), 1);
    expect_coverage(run, scene, p, w.id);
    // Standing still afterwards keeps the id.
    for (int f = 0; f < 60; ++f) {
      SCOPED_TRACE(f);
      step(run, scene);
      ASSERT_EQ(id_of(run, scene, p), w.id);
    }
  }
}

TEST(Users, TwoPeopleApartGetTwoIdsAndKeepThemThroughACrossing) {
  // The one behind walks 800 mm or only 400 mm behind the one in front.
  for (float gap : {800.f, 400.f}) {
    SCOPED_TRACE(testing::Message() << "depth gap " << gap);
    const float front = 2500.f, back = front + gap;
    Scene scene = room();
    const int a = scene.add_person(-2500.f, front);
    const int b = scene.add_person(2800.f, back);
    scene.person(b).visible = false;
    SceneEngine run;
    run.feed(scene.render(), 40);
    const uint16_t idA = walk(run, scene, a, -700.f, front).id;
    scene.person(b).visible = true;
    const uint16_t idB = walk(run, scene, b, 700.f, back).id;
    ASSERT_EQ(idA, 1);
    ASSERT_EQ(idB, 2);
    ASSERT_EQ(id_of(run, scene, a), 1);

    // Cross: a walks right in front, b walks left behind.
    for (int f = 0; f < 70; ++f) {
      scene.walk_to(a, scene.person(a).x + kStep, front);
      scene.walk_to(b, scene.person(b).x - kStep, back);
      SCOPED_TRACE(testing::Message() << "crossing frame " << f);
      step(run, scene);
      ASSERT_EQ(id_of(run, scene, a), idA);
      const uint16_t nowB = id_of(run, scene, b);
      if (nowB != 0) {
        ASSERT_EQ(nowB, idB);
      }
    }
    EXPECT_GT(scene.person(a).x, scene.person(b).x);
    EXPECT_EQ(id_of(run, scene, a), idA);
    EXPECT_EQ(id_of(run, scene, b), idB);
    EXPECT_EQ(run.users().active_user_count(), 2);
  }
}

TEST(Users, StillObjectsFromTheFirstFrameAndMovedFurnitureNeverGetAnId) {
  Scene scene = room();
  scene.add_person(900.f, 3000.f);  // a statue standing there from the start
  scene.add_box(-900.f, 2500.f, 500.f, 400.f, 700.f);
  const int chair = scene.add_chair(-300.f, 2200.f);
  const int crate = scene.add_box(600.f, 2000.f, 600.f, 500.f, 800.f);
  SceneEngine run;
  run.feed(scene.render(), 60);
  // The chair is pushed across the room, the crate is dragged in steps.
  for (int f = 0; f < 150; ++f) {
    if (f < 60) scene.move_object(chair, -300.f + 15.f * float(f), 2200.f + 5.f * float(f));
    if (f >= 60 && f < 90) scene.move_object(crate, 600.f - 25.f * float(f - 60), 2000.f);
    SCOPED_TRACE(f);
    step(run, scene);
    ASSERT_EQ(run.users().active_user_count(), 0);
    ASSERT_EQ(run.count(0), scene.width() * scene.height());
  }
}

TEST(Users, NoisyFramesStayWithinTheRegionCapacity) {
  Scene scene = room();
  SceneEngine run;
  run.feed(scene.render(), 35);
  std::mt19937 random(7);
  std::uniform_int_distribution<int> depth(500, 4400);
  std::uniform_int_distribution<int> coin(0, 3);
  for (int f = 0; f < 40; ++f) {
    std::vector<uint16_t> noise(size_t(scene.width() * scene.height()));
    // Salt and pepper of unrelated depths: almost every pixel is its own region.
    for (uint16_t& d : noise) d = coin(random) == 0 ? 0 : uint16_t(depth(random));
    run.feed(noise);
    SCOPED_TRACE(f);
    // Far more regions than the tables hold: the rest are silently left out.
    ASSERT_EQ(run.users().region_count(), 1999);
    check_frame(run, noise);
    ASSERT_LE(run.users().active_user_count(), 10);
  }
}

TEST(Users, ElevenPeopleGiveAtMostTenIds) {
  Scene scene(1000.f, 5.f);
  scene.floor().wall(4800.f);
  // People walk in one after the other from both sides into two files: five in front, six
  // behind and taller. Everyone enters from outside the view: a body that pops up in the
  // middle of the image reads as a sudden scene change instead.
  std::vector<int> people;
  std::vector<float> targets;
  for (int i = 0; i < 5; ++i) {
    people.push_back(scene.add_person(-2000.f, 3000.f, 1300.f));
    targets.push_back(1280.f - 640.f * float(i));
  }
  for (int i = 0; i < 6; ++i) {
    people.push_back(scene.add_person(2800.f, 4300.f, 1700.f));
    targets.push_back(-1950.f + 780.f * float(i));
  }
  SceneEngine run;
  for (int p : people) scene.person(p).visible = false;
  run.feed(scene.render(), 40);
  int most = 0;
  for (int f = 0; f < 260; ++f) {
    for (size_t i = 0; i < people.size(); ++i) {
      const int p = people[i];
      const int start = int(i < 5 ? i : i - 5) * 30 + (i < 5 ? 0 : 15);
      if (f < start) continue;
      scene.person(p).visible = true;
      const float dx = targets[i] - scene.person(p).x;
      if (std::abs(dx) > 1.f) scene.walk_to(p, scene.person(p).x + std::clamp(dx, -20.f, 20.f), scene.person(p).z);
    }
    SCOPED_TRACE(f);
    step(run, scene);
    ASSERT_LE(run.users().active_user_count(), 10);
    most = std::max(most, run.users().active_user_count());
  }
  EXPECT_EQ(most, 10);
}

TEST(Users, TwoPeopleWhoTouchAndSeparateKeepTheirIds) {
  Scene scene = room();
  const int a = scene.add_person(-2500.f, 2900.f);
  const int b = scene.add_person(2700.f, 2900.f);
  scene.person(b).visible = false;
  SceneEngine run;
  run.feed(scene.render(), 40);
  const uint16_t idA = walk(run, scene, a, -900.f, 2900.f).id;
  scene.person(b).visible = true;
  const uint16_t idB = walk(run, scene, b, 900.f, 2900.f).id;
  ASSERT_NE(idA, 0);
  ASSERT_NE(idB, 0);
  ASSERT_NE(idA, idB);

  // They step towards each other until their arms touch, stay a second, and step apart.
  const float touching = 280.f;  // the arms overlap by 20 mm
  std::vector<float> path;
  for (float x = 900.f; x > touching; x -= 15.f) path.push_back(x);
  for (int i = 0; i < 30; ++i) path.push_back(touching);
  for (float x = touching; x < 1000.f; x += 15.f) path.push_back(x);
  bool paired = false;
  for (size_t f = 0; f < path.size(); ++f) {
    scene.walk_to(a, -path[f], 2900.f);
    scene.walk_to(b, path[f], 2900.f);
    SCOPED_TRACE(testing::Message() << "frame " << f << " half gap " << path[f]);
    step(run, scene);
    ASSERT_EQ(id_of(run, scene, a), idA);
    ASSERT_EQ(id_of(run, scene, b), idB);
    paired = paired || run.users().user(idA).pairPartner != 0 || run.users().user(idB).pairPartner != 0;
    if (path[f] == touching) {
      // The shared region is cut between the two.
      for (int person : {a, b}) {
        expect_coverage(run, scene, person, person == a ? idA : idB);
      }
    }
  }
  EXPECT_TRUE(paired) << "the two never joined into one region";
  expect_coverage(run, scene, b, idB);
  EXPECT_EQ(run.users().active_user_count(), 2);
}

TEST(Users, APersonWhoPassesBehindAPillarKeepsTheId) {
  Scene scene;
  scene.floor().wall(4200.f);
  scene.add_box(0.f, 2500.f, 800.f, 300.f, 2200.f);
  const int p = scene.add_person(2800.f, 3400.f);
  scene.person(p).visible = false;
  SceneEngine run;
  run.feed(scene.render(), 40);
  scene.person(p).visible = true;
  const uint16_t id = walk(run, scene, p, 900.f, 3400.f).id;
  ASSERT_EQ(id, 1);
  bool hidden = false;
  for (int f = 0; f < 90; ++f) {
    scene.walk_to(p, scene.person(p).x - kStep, 3400.f);
    SCOPED_TRACE(f);
    step(run, scene);
    const uint16_t now = id_of(run, scene, p);
    if (now == 0) {
      hidden = hidden || run.users().user(id).labelPixels == 0;
    } else {
      ASSERT_EQ(now, id);
    }
  }
  EXPECT_TRUE(hidden) << "the pillar never hid the person";
  EXPECT_EQ(id_of(run, scene, p), id);
  EXPECT_EQ(run.users().active_user_count(), 1);
}

TEST(Users, APersonComingTowardsTheCameraGetsAnIdSoonAfterComingNearerThanTheCut) {
  Scene scene;
  scene.floor().wall(7000.f);
  const int p = scene.add_person(300.f, 6500.f);
  scene.person(p).visible = false;
  SceneEngine run;
  run.feed(scene.render(), 40);
  scene.person(p).visible = true;
  int nearFrame = -1, idFrame = -1;
  for (int f = 0; scene.person(p).z > 2600.f; ++f) {
    scene.walk_to(p, 300.f, scene.person(p).z - kStep);
    SCOPED_TRACE(f);
    step(run, scene);
    if (nearFrame < 0 && scene.person(p).z + 150.f < 4500.f) nearFrame = f;
    const uint16_t id = id_of(run, scene, p);
    if (idFrame < 0 && id != 0) idFrame = f;
    if (idFrame >= 0) {
      ASSERT_EQ(id, 1);
    }
  }
  ASSERT_GE(nearFrame, 0);
  ASSERT_GE(idFrame, 0);
  EXPECT_LE(idFrame, nearFrame + 30);
}

TEST(Users, APersonInTheSceneFromTheFirstFrameGetsAnIdOnlyAfterWalkingOff) {
  Scene scene = room();
  const int p = scene.add_person(-600.f, 2800.f);
  SceneEngine run;
  const std::vector<uint16_t> still = scene.render();
  for (int f = 0; f < 100; ++f) {
    run.feed(still);
    SCOPED_TRACE(f);
    ASSERT_EQ(run.users().active_user_count(), 0);
  }
  const Walk w = walk(run, scene, p, 600.f, 2800.f);
  ASSERT_GE(w.firstIdFrame, 0);
  EXPECT_LE(w.firstIdFrame, 30);
  EXPECT_EQ(w.id, 1);
  expect_coverage(run, scene, p, w.id, 0.9);
}

TEST(Users, AUserKeepsTheIdThroughABackgroundResetAndIsRemovedOnThe301stFrameWithoutPixels) {
  Scene scene = room();
  const int p = scene.add_person(-2500.f, 2800.f);
  SceneEngine run;
  run.feed(scene.render(), 40);
  const uint16_t id = walk(run, scene, p, -700.f, 2800.f).id;
  ASSERT_EQ(id, 1);
  // The background is rebuilt with the person standing in it; the person then walks on.
  run.engine().reset();
  for (int f = 0; f < 140; ++f) {
    if (f >= 60) scene.walk_to(p, scene.person(p).x + 20.f, 2800.f);
    SCOPED_TRACE(f);
    step(run, scene);
    ASSERT_EQ(id_of(run, scene, p), id);
    ASSERT_EQ(run.users().active_user_count(), 1);
  }
  expect_coverage(run, scene, p, id, 0.85);

  scene.person(p).visible = false;
  const std::vector<uint16_t> empty = scene.render();
  int frames = 0;
  while (run.users().is_active(id) && frames < 400) {
    run.feed(empty);
    ++frames;
  }
  EXPECT_EQ(frames, 301);
}

TEST(Users, TwoPeopleWhoComeInTogetherGetTwoIdsOnceApart) {
  Scene scene = room();
  const int a = scene.add_person(-2500.f, 2800.f);
  const int b = scene.add_person(-3100.f, 2800.f);  // arm to arm with a
  SceneEngine run;
  run.feed(scene.render(), 40);
  for (int f = 0; f < 140; ++f) {
    scene.walk_to(a, scene.person(a).x + kStep, 2800.f);
    scene.walk_to(b, scene.person(b).x + (f < 80 ? kStep : -10.f), 2800.f);
    SCOPED_TRACE(f);
    step(run, scene);
    ASSERT_LE(run.users().active_user_count(), 2);
  }
  const uint16_t idA = id_of(run, scene, a), idB = id_of(run, scene, b);
  EXPECT_NE(idA, 0);
  EXPECT_NE(idB, 0);
  EXPECT_NE(idA, idB);
  for (int person : {a, b}) {
    expect_coverage(run, scene, person, person == a ? idA : idB);
  }
}
