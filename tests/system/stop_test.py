"""The end: signals, and what is under way when they come."""

import signal

import plant

# A stop request ends the pause of the main loop; the mail thread sees it after its pause of at most 3 s.
STOP_LIMIT = 12


class Stop(plant.PlantTest):
    def start(self):
        self.start_answers()
        self.configure()
        self.project()
        self.daemon = self.start_daemon()
        self.daemon.out.wait(plant.holding("-->Thread mail (queue:0)"))
        self.server.wait_requests(1)

    def assert_stops(self, number):
        status, seconds = self.daemon.stop(number)
        self.assertEqual(status, 0)
        self.assertLess(seconds, STOP_LIMIT)
        self.assertEqual(self.daemon.err.text(), "")

    def test_sigterm_stops_with_status_0(self):
        self.start()
        self.assert_stops(signal.SIGTERM)
        self.assert_in_order(self.daemon.out.texts(),
                             ["Interrupt signal (15) received.", "Koncim Vlakno mail........."])
        self.assertTrue(self.daemon.out.text().endswith("\n"))

    def test_sigint_stops_with_status_0(self):
        self.start()
        self.assert_stops(signal.SIGINT)
        self.assert_in_order(self.daemon.out.texts(),
                             ["Interrupt signal (2) received.", "Koncim Vlakno mail........."])

    def test_sigusr1_stops_without_reading_anything_again(self):
        self.start()
        self.assert_stops(signal.SIGUSR1)
        text = self.daemon.out.text()
        # "Reload" has no newline of its own.
        self.assertEqual(text.count("Reload"), 1)
        self.assertNotIn("Reload\n", text)
        self.assertEqual(text.count("Nacitam groups.json"), 1)
        self.assertNotIn("Interrupt signal", text)
        self.assertIn("Koncim Vlakno mail.........", text)

    def test_a_second_signal_changes_nothing(self):
        self.start()
        self.daemon.signal(signal.SIGTERM)
        self.daemon.signal(signal.SIGINT)
        self.assert_stops(signal.SIGTERM)

    def test_a_stop_while_the_server_hangs_ends_the_transfer(self):
        self.start_sim()
        self.sim.command(server="hang")
        self.configure()
        self.project()
        self.daemon = self.start_daemon()
        plant.wait_for(lambda: self.sim.command(query="state")["poll_count"], "the poll")
        self.assertLess(self.daemon.stop()[1], STOP_LIMIT)

    def test_a_stop_during_start_up_ends_with_status_0(self):
        self.start_answers()
        self.configure()
        self.project()
        daemon = self.start_daemon()
        daemon.out.wait("Reading korvato.conf ")
        status, seconds = daemon.stop()
        self.assertEqual(status, 0)
        self.assertLess(seconds, STOP_LIMIT)

    def test_mails_under_way_are_finished_before_the_end(self):
        self.start_sim()
        client = self.fake_client("sleep 1\ntouch %s\n" % self.path("done"))
        self.configure()
        self.project()
        self.sim.coming((12, "activated"))
        daemon = self.start_daemon()
        client.wait_runs(1)
        self.assertEqual(daemon.stop()[0], 0)
        self.assertTrue(plant.os.path.exists(self.path("done")))
        self.assert_in_order(daemon.out.texts(), ["-> Odeslan", "Koncim Vlakno mail........."])


if __name__ == "__main__":
    plant.main()
