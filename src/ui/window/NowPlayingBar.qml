// What the desktop plays: the cover, the title and artist, and the player's
// previous, play/pause and next, drawn with shapes every desktop font has.
// Hidden while nothing plays.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

RowLayout {
    id: bar
    objectName: "nowPlaying"
    visible: App.hasTrack
    spacing: Theme.gap

    Image {
        objectName: "nowPlayingArtwork"
        Layout.preferredWidth: 40
        Layout.preferredHeight: 40
        visible: App.trackArtwork !== ""
        source: App.trackArtwork
        sourceSize.width: 80
        sourceSize.height: 80
        fillMode: Image.PreserveAspectCrop
        asynchronous: true
        cache: false
        Accessible.ignored: true
    }
    ColumnLayout {
        spacing: 0
        Layout.maximumWidth: 220
        Label {
            objectName: "nowPlayingTitle"
            Layout.fillWidth: true
            textFormat: Text.PlainText
            text: App.trackTitle
            elide: Text.ElideRight
            font.pixelSize: Theme.bodySize
            font.weight: Font.DemiBold
            color: Theme.text
        }
        Label {
            objectName: "nowPlayingArtist"
            Layout.fillWidth: true
            visible: text !== ""
            textFormat: Text.PlainText
            text: App.trackArtist
            elide: Text.ElideRight
            font.pixelSize: Theme.bodySize - 1
            color: Theme.textMuted
        }
    }
    ToolButton {
        objectName: "previousTrackButton"
        text: "\u25AE\u25C0"
        Accessible.name: qsTr("Previous track")
        onClicked: App.mediaCommand("previousTrack")
    }
    ToolButton {
        objectName: "playPauseButton"
        text: App.trackPlaying ? "\u275A\u275A" : "\u25B6"
        Accessible.name: App.trackPlaying ? qsTr("Pause") : qsTr("Play")
        onClicked: App.mediaCommand("togglePlayPause")
    }
    ToolButton {
        objectName: "nextTrackButton"
        text: "\u25B6\u25AE"
        Accessible.name: qsTr("Next track")
        onClicked: App.mediaCommand("nextTrack")
    }
}
