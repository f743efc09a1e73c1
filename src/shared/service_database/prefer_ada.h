// Which executable of a service is wanted where a description names two: the plain one, or the one
// for an installation that prefers Ada.
//
// Nobody has to say so: without a word the installation itself is looked at, once. What a plugin
// says later beats what was found, and its last word holds. Main thread only.
#pragma once

/// What the process knows about it.
struct PreferAdaSettings {
  bool preferAdaSet = false;     ///< somebody has said so
  bool preferAdaProbed = false;  ///< the installation has been looked at
  bool preferAda = false;        ///< the answer
};

/// The settings of this process. Start values put back make it look at the installation anew.
PreferAdaSettings& preferAdaSettings();

/// True for an installation that has the program `adavestrel` beside this one and not `vestrel`, or
/// if setPreferAda() said so.
bool isPreferAda();

/// Decides it for all later questions.
void setPreferAda(bool preferAda);
