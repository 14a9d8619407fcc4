import pytest

pytest_plugins = ["tav_air.fixtures"]

ROBOTS = {"python": ["python3", "./robot.py"], "cpp": ["./robot"]}
REMOTES = {"python": ["python3", "./remote.py"], "cpp": ["./remote"]}


@pytest.fixture(params=ROBOTS)
def robot(air, request):
    robot = air.brick("Robot2", *ROBOTS[request.param], "Robot1")
    robot.wait_for("waits for Robot1")
    return robot


@pytest.fixture(params=REMOTES)
def remote(air, request, robot):
    remote = air.brick("Robot1", *REMOTES[request.param], "Robot2")
    remote.type("50 -10\n")
    robot.wait_for("drives '50 -10'")
    return remote


def test_the_robot_stops_when_its_remote_is_gone(robot, remote):
    remote.kill()
    robot.wait_for(r"drives '50 -10'\s+drives '0 0'\s+waits for Robot1")


def test_both_notice_when_they_lose_each_other(robot, remote):
    robot.out_of_range()
    robot.wait_for(r"drives '50 -10'\s+drives '0 0'")
    remote.wait_for("Robot2 does not answer")
    robot.back()
    robot.wait_for(r"drives '0 0'\s+waits for Robot1\s+drives '50 -10'")
