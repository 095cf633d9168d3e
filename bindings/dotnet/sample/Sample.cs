// A short play session of a game, with the lifecycle an app follows: start
// at launch, report what the player does, and on the way to the background
// (here: the end of the session) shut down and give the saves a bounded
// wait. Continuity is on, so each launch carries on from the ones before:
// the first launch prints no recommendation, the second prints what the
// first one taught.
//
//   mono sample.exe [--data-dir DIR]
using System;
using System.Collections.Generic;
using QEVR;

internal static class Sample
{
    private static int Main(string[] args)
    {
        if (args.Length == 2 && args[0] == "--data-dir")
        {
            Qevr.SetDataDirectory(args[1]);
        }
        else if (args.Length != 0)
        {
            Console.Error.WriteLine("usage: mono sample.exe [--data-dir DIR]");
            return 2;
        }

        Qevr.SetContinuity(true);
        // The library's warnings and errors into the game's own log.
        Qevr.Log += (sender, line) =>
        {
            if (line.Level >= LogLevel.Default)
                Console.Error.WriteLine("qevr: {0}/{1}: {2}", line.Subsystem, line.Category, line.Text);
        };

        // At launch, and again each time the game comes back to the foreground.
        Qevr.Start(new Configuration { AppId = "com.example.sample" });

        // What the launches before this one suggest; nothing on the first.
        IReadOnlyList<Recommendation> recommendations = Qevr.Generate(Domain.Game);
        Console.WriteLine("{0} recommendations", recommendations.Count);
        foreach (Recommendation r in recommendations)
            Console.WriteLine("  [{0}] {1}: {2} ({3})", r.Priority, r.Title, r.Summary, r.Action.Kind);

        // The player at work.
        Qevr.ScreenView("Main Menu");
        for (int level = 1; level <= 4; level++)
        {
            Qevr.ButtonTap("play", "Play", new Dictionary<string, object> { { "level", level } });
            Qevr.Navigation("Main Menu", "Level");
            Qevr.Gesture("swipe", "board");
            Qevr.Gesture("tap", "board");
            Qevr.Track("level_completed", new Dictionary<string, object>
            {
                { "level", level }, { "score", 1000 + 150 * level }, { "accuracy", 0.8 + 0.03 * level },
                { "perfect", level == 4 }, { "at", DateTime.UtcNow },
            });
            Qevr.Navigation("Level", "Main Menu");
        }
        Qevr.ScreenDisappear("Main Menu");

        // To the background, or exit: end the session, wait for its saves.
        Qevr.Shutdown();
        if (!Qevr.WaitForBackgroundIdle(TimeSpan.FromSeconds(5)))
            Console.Error.WriteLine("qevr: the saves did not finish within 5 s");
        return 0;
    }
}
