<?php

declare(strict_types=1);

namespace Korlo\SettingsPage;

/**
 * The fields that the form of a group sends. Names of groups and keys travel in hexadecimal, so that any byte survives,
 * and PHP does not change the names of the fields.
 *
 * - "group": its name; or "new-group", as typed, for one that does not exist yet
 * - "digest": of what the form was drawn with
 * - "was:KEY", "now:KEY": what was drawn, and what the field holds; only "now:KEY" for a key that was gone
 * - "theirs:KEY": the value that a conflict has shown, in hexadecimal, since it may be no text
 * - "new-key", "new-value"
 * - "action": save, add, erase or restore; or "take": "mine:KEY" or "theirs:KEY", which settles a conflict and saves
 */
final class Form
{
    private const ACTIONS = ['save', 'add', 'erase', 'restore'];

    /**
     * @param array<mixed> $fields
     */
    public function __construct(private readonly array $fields)
    {
    }

    /**
     * @throws BadRequest
     */
    public function action(): string
    {
        $action = $this->field('take') === null ? $this->field('action') : 'save';
        if (!in_array($action, self::ACTIONS, true)) {
            throw new BadRequest('Nothing was changed: the form does not say what to do. Reload the page.');
        }
        return $action;
    }

    public function isNewGroup(): bool
    {
        return $this->field('new-group') !== null;
    }

    public function digest(): string
    {
        return $this->field('digest') ?? '';
    }

    /**
     * What was typed, with the conflict settled that the button was for.
     *
     * @throws BadRequest
     */
    public function draft(): Draft
    {
        $group = $this->isNewGroup() ? Text::sent($this->field('new-group')) : self::name($this->field('group') ?? '?');
        $draft = new Draft($group, [], [], $this->text('new-key') ?? '', $this->text('new-value') ?? '');
        foreach (array_keys($this->fields) as $field) {
            if (str_starts_with((string)$field, 'now:')) {
                $hex = substr($field, strlen('now:'));
                $key = self::name($hex);
                $draft->was[$key] = $this->text("was:$hex");
                $draft->now[$key] = $this->text("now:$hex");
            }
        }
        $this->settle($draft);
        return $draft;
    }

    /**
     * @throws BadRequest
     */
    public static function name(string $hex): string
    {
        if (preg_match('/\A([0-9a-f]{2})*\z/', $hex) !== 1) {
            throw new BadRequest('Nothing was changed: the form makes no sense. Reload the page.');
        }
        return (string)hex2bin($hex);
    }

    private function settle(Draft $draft): void
    {
        $take = $this->field('take');
        if ($take === null) {
            return;
        }
        [$whose, $hex] = explode(':', "$take:");
        $key = self::name($hex);
        $theirs = $this->field("theirs:$hex");
        $theirs = $theirs === null ? null : self::name($theirs);
        $draft->was[$key] = $theirs;
        if ($whose === 'theirs' || !isset($draft->now[$key])) {
            $draft->drop($key);
        }
    }

    private function text(string $name): ?string
    {
        $field = $this->field($name);
        return $field === null ? null : Text::sent($field);
    }

    private function field(string $name): ?string
    {
        $field = $this->fields[$name] ?? null;
        return is_string($field) ? $field : null;
    }
}
