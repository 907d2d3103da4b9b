"""What all tests of faults begin with. It runs first: what breaks every file breaks this one by name."""

from harness import NATIVE, PLAIN, World, native_host, remembered
from support import Test


class FirstTest(Test):
    def test_a_world_can_be_made(self):
        with native_host(NATIVE), native_host(PLAIN):
            self.check_same(remembered(World(NATIVE).tracker), remembered(World(PLAIN).tracker))
