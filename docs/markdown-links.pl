#!/usr/bin/perl
# Doxygen input filter for the README and the guides (run from the source
# root with the file as its argument). Doxygen turns a link to a .md file
# into a reference to that page, and fails on one whose file is no input of
# the API reference: such a link (the Yocto layer's README, a guide not yet
# written) keeps its text and loses the link.
use strict;
use warnings;
use File::Basename qw(dirname);
use File::Spec;

my $file = $ARGV[0];
my $dir = dirname($file);
sub page {
  my ($target) = @_;
  my $path = File::Spec->abs2rel(File::Spec->rel2abs($target, $dir));
  return -f $path && $path =~ m{^(README\.md|docs/[^/]+\.md)$};
}
while (my $line = <>) {
  $line =~ s{\[([^\]]*)\]\(([^():#\s]+\.md)(#[^)\s]*)?\)}
            {page($2) ? "[$1]($2)" : $1}ge;
  print $line;
}
